# Installation, the CMake package and pkg-config file for applications that
# link the library, man pages, the shell completion, and the Debian package
# that CPack builds from all of it (`make package`).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Installed headers keep the paths they are included by
# ("QMFoundation/Keychain/QMKeychain.h"), below one folder of their own.
set(ZARVO_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/zarvo)
set(ZARVO_CMAKE_DIR lib/cmake/QMFoundation)

# Every library target below a folder, the platform layer's included.
function(zarvo_library_targets directory result)
  get_property(targets DIRECTORY ${directory} PROPERTY BUILDSYSTEM_TARGETS)
  get_property(subdirectories DIRECTORY ${directory} PROPERTY SUBDIRECTORIES)
  set(libraries)
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    if(type MATCHES "LIBRARY")
      list(APPEND libraries ${target})
    endif()
  endforeach()
  foreach(subdirectory IN LISTS subdirectories)
    zarvo_library_targets(${subdirectory} nested)
    list(APPEND libraries ${nested})
  endforeach()
  set(${result} ${libraries} PARENT_SCOPE)
endfunction()
zarvo_library_targets(${PROJECT_SOURCE_DIR}/Platform platform_libraries)
zarvo_library_targets(${PROJECT_SOURCE_DIR}/QMFoundation foundation_libraries)
set(ZARVO_LIBRARIES ${foundation_libraries} ${platform_libraries})
foreach(library IN LISTS ZARVO_LIBRARIES)
  target_include_directories(${library} INTERFACE $<INSTALL_INTERFACE:${ZARVO_INSTALL_INCLUDEDIR}>)
  target_compile_features(${library} INTERFACE cxx_std_20)
endforeach()

install(TARGETS zarvo-askpass zarvo-keychain git-credential-zarvo RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS ${ZARVO_LIBRARIES} EXPORT QMFoundationTargets
  ARCHIVE DESTINATION lib/zarvo)
install(DIRECTORY Platform QMFoundation DESTINATION ${ZARVO_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(EXPORT QMFoundationTargets NAMESPACE QMFoundation:: DESTINATION ${ZARVO_CMAKE_DIR})
configure_package_config_file(cmake/QMFoundationConfig.cmake.in
  ${PROJECT_BINARY_DIR}/QMFoundationConfig.cmake INSTALL_DESTINATION ${ZARVO_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QMFoundationConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QMFoundationConfig.cmake ${PROJECT_BINARY_DIR}/QMFoundationConfigVersion.cmake
  DESTINATION ${ZARVO_CMAKE_DIR})

# pkg-config: the archives in one link group, so their order does not matter.
set(ZARVO_PC_LIBRARIES)
foreach(library IN LISTS ZARVO_LIBRARIES)
  get_target_property(type ${library} TYPE)
  if(type STREQUAL "STATIC_LIBRARY")
    string(APPEND ZARVO_PC_LIBRARIES " -l${library}")
  endif()
endforeach()
configure_file(cmake/qmfoundation.pc.in ${PROJECT_BINARY_DIR}/qmfoundation.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qmfoundation.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Man pages: scdoc source in docs/man, converted by the default build so that
# install and package always find them, and gzip-compressed as Debian installs
# them. The fixed date and gzip -n keep the pages byte-identical from build to build;
# a failed conversion leaves no page behind that a later build would take as done.
find_program(SCDOC scdoc)
if(NOT SCDOC)
  message(FATAL_ERROR "scdoc converts the man pages: install the Debian package scdoc (scripts/install-deps)")
endif()
find_program(GZIP gzip REQUIRED)
set(ZARVO_MAN_DATE_EPOCH 1767225600)
set(man_pages)
foreach(program IN ITEMS zarvo-askpass zarvo-keychain git-credential-zarvo)
  set(source ${PROJECT_SOURCE_DIR}/docs/man/${program}.1.scd)
  set(page ${PROJECT_BINARY_DIR}/man/${program}.1)
  add_custom_command(OUTPUT ${page} ${page}.gz
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
    COMMAND ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=${ZARVO_MAN_DATE_EPOCH}
            sh -c "\"$0\" < \"$1\" > \"$2.new\" && mv \"$2.new\" \"$2\"" ${SCDOC} ${source} ${page}
    COMMAND ${GZIP} -9nkf ${page}
    DEPENDS ${source}
    COMMENT "Converting the man page of ${program}"
    VERBATIM)
  list(APPEND man_pages ${page})
  install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endforeach()
add_custom_target(man-pages ALL DEPENDS ${man_pages})
install(FILES scripts/completion/zarvo-keychain.bash
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME zarvo-keychain)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zarvo)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Zarvo developers <zarvo@zarvo.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "askpass responder and git credential helper on a keychain, with the QMFoundation library")
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# What an outside project needs to link the installed static archives: the
# -dev packages behind the CMake package's find_dependency calls and the
# pkg-config file's Requires. The programs' own run-time needs are in Depends.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "pkg-config, nlohmann-json3-dev, libpcre2-dev, libsqlite3-dev, libsodium-dev, libssl-dev, libcurl4-openssl-dev | libcurl-dev, uuid-dev, libicu-dev, libmnl-dev, libpugixml-dev")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
include(CPack)
