# Every third-party library comes from the distribution; nothing is fetched.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)

pkg_check_modules(PCRE2 REQUIRED IMPORTED_TARGET libpcre2-8)
pkg_check_modules(SQLITE3 REQUIRED IMPORTED_TARGET sqlite3)
pkg_check_modules(SODIUM REQUIRED IMPORTED_TARGET libsodium)
pkg_check_modules(LIBCRYPTO REQUIRED IMPORTED_TARGET libcrypto)
pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
pkg_check_modules(CURL REQUIRED IMPORTED_TARGET libcurl)
# The server-trust challenge reaches into libcurl's TLS handshake through
# OpenSSL, the TLS library of Debian's libcurl4-openssl-dev.
pkg_check_modules(LIBSSL REQUIRED IMPORTED_TARGET libssl)
# rtnetlink messages for network reachability; thin, with no cache of its own.
pkg_check_modules(MNL REQUIRED IMPORTED_TARGET libmnl)
find_package(nlohmann_json 3 REQUIRED)
# The XML store's file: a DOM that reads a large graph quickly.
pkg_check_modules(PUGIXML REQUIRED IMPORTED_TARGET pugixml)
# ICU: character properties (icu-uc) and date formatting (icu-i18n).
pkg_check_modules(ICU_UC REQUIRED IMPORTED_TARGET icu-uc)
pkg_check_modules(ICU_I18N REQUIRED IMPORTED_TARGET icu-i18n)

# The responder starts once per prompt. Where Debian ships a static archive of
# a library, every program links that instead of the shared object, so the
# dynamic loader has less to map and relocate at each start.
function(zarvo_prefer_archive prefix archive)
  find_library(${prefix}_ARCHIVE NAMES ${archive})
  if(${prefix}_ARCHIVE)
    set(dependencies ${${prefix}_STATIC_LIBRARIES})
    list(REMOVE_ITEM dependencies ${${prefix}_LIBRARIES})
    set_property(TARGET PkgConfig::${prefix} PROPERTY
      INTERFACE_LINK_LIBRARIES ${${prefix}_ARCHIVE} ${dependencies} Threads::Threads)
  endif()
endfunction()
zarvo_prefer_archive(PCRE2 libpcre2-8.a)
zarvo_prefer_archive(SQLITE3 libsqlite3.a)
zarvo_prefer_archive(SODIUM libsodium.a)

# A program linked wholly static (one whose ZARVO_STATIC_PROGRAM property is
# set: the responder) needs the archive of every library it links, also of
# those that other programs load as shared objects. Those keep the shared
# object: a program that also loads libcurl must not hold a second copy of
# libcrypto.
function(zarvo_archive_for_static_programs prefix archive)
  find_library(${prefix}_ARCHIVE NAMES ${archive} REQUIRED)
  set(dependencies ${${prefix}_STATIC_LIBRARIES})
  list(REMOVE_ITEM dependencies ${${prefix}_LIBRARIES})
  get_target_property(shared PkgConfig::${prefix} INTERFACE_LINK_LIBRARIES)
  set(static_program "$<BOOL:$<TARGET_PROPERTY:ZARVO_STATIC_PROGRAM>>")
  set_property(TARGET PkgConfig::${prefix} PROPERTY INTERFACE_LINK_LIBRARIES
    "$<${static_program}:${${prefix}_ARCHIVE};${dependencies}>"
    "$<$<NOT:${static_program}>:${shared}>")
endfunction()
zarvo_archive_for_static_programs(LIBCRYPTO libcrypto.a)
zarvo_archive_for_static_programs(UUID libuuid.a)

if(ZARVO_BUILD_TESTS)
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()
if(ZARVO_BUILD_BENCHMARKS)
  find_package(benchmark REQUIRED)
endif()
