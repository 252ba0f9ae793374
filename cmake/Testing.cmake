# zarvo_add_test(NAME SOURCES ... LIBRARIES ... [LABELS ...])
# One GoogleTest executable; its cases are discovered when ctest runs, so the
# build does not run test binaries.
function(zarvo_add_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} GTest::gtest GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    PROPERTIES LABELS "${ARG_LABELS}" ENVIRONMENT "ZARVO_BINARY_DIR=${PROJECT_BINARY_DIR}/bin")
endfunction()
