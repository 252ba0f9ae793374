# Every third-party library comes from the distribution; nothing is fetched.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)

pkg_check_modules(PCRE2 REQUIRED IMPORTED_TARGET libpcre2-8)
pkg_check_modules(URIPARSER REQUIRED IMPORTED_TARGET liburiparser)
pkg_check_modules(SQLITE3 REQUIRED IMPORTED_TARGET sqlite3)
pkg_check_modules(SODIUM REQUIRED IMPORTED_TARGET libsodium)
pkg_check_modules(LIBCRYPTO REQUIRED IMPORTED_TARGET libcrypto)
pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
find_package(nlohmann_json 3 REQUIRED)

if(ZARVO_BUILD_TESTS)
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()
if(ZARVO_BUILD_BENCHMARKS)
  find_package(benchmark REQUIRED)
endif()
