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

install(FILES
  docs/man/zarvo-askpass.1 docs/man/zarvo-keychain.1 docs/man/git-credential-zarvo.1
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
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
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
include(CPack)
