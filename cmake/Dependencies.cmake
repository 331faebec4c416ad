# Debian 12 packages only; scripts/install-deps installs them.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(OpenSSL 3 REQUIRED)
find_package(ICU 72 REQUIRED COMPONENTS uc i18n)
find_package(nlohmann_json 3.11 REQUIRED)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)

if(HARBORKEEPER_TESTS)
  find_package(GTest REQUIRED)
endif()
if(HARBORKEEPER_BENCH)
  find_package(benchmark REQUIRED)
endif()
