# zarvo_add_test(NAME SOURCES ... LIBRARIES ... [LABELS ...] [OWN_MAIN])
# One GoogleTest executable; its cases are discovered when ctest runs, so the
# build does not run test binaries. OWN_MAIN: the sources bring their main
# (one that must act before GoogleTest starts).
function(zarvo_add_test name)
  cmake_parse_arguments(ARG "OWN_MAIN" "" "SOURCES;LIBRARIES;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} GTest::gtest GTest::gmock)
  if(NOT ARG_OWN_MAIN)
    target_link_libraries(${name} PRIVATE GTest::gtest_main)
  endif()
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    PROPERTIES ENVIRONMENT "ZARVO_BINARY_DIR=${PROJECT_BINARY_DIR}/bin")
  # gtest_discover_tests flattens a list of labels into its other properties
  # (only the first label would stick), so the labels are set by a script that
  # ctest runs once the cases are discovered.
  if(ARG_LABELS)
    set(label_script "${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake")
    file(WRITE "${label_script}"
      "if(${name}_TESTS)\n  set_tests_properties(\${${name}_TESTS} PROPERTIES LABELS \"${ARG_LABELS}\")\nendif()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${label_script}")
  endif()
  # `make check-tsan` builds just the tests that ThreadSanitizer runs.
  if("tsan" IN_LIST ARG_LABELS)
    if(NOT TARGET tsan-tests)
      add_custom_target(tsan-tests)
    endif()
    add_dependencies(tsan-tests ${name})
  endif()
endfunction()
