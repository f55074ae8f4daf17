# Every dependency comes from a Debian package (scripts/setup.sh installs them).
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(OpenSSL 3 REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(CURL REQUIRED)
find_package(nlohmann_json 3 REQUIRED)
find_package(fmt REQUIRED)

pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
pkg_check_modules(PCRE2 REQUIRED IMPORTED_TARGET libpcre2-8)

if(TOVIK_BUILD_TESTS)
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()

if(TOVIK_BUILD_BENCHMARKS)
  find_package(benchmark REQUIRED)
  # Only a point of comparison for the benchmarks; no library target links it.
  find_package(spdlog QUIET)
endif()
