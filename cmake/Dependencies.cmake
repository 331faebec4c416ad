# Debian 12 packages only; scripts/install-deps installs them.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(OpenSSL 3 REQUIRED)
find_package(ICU 72 REQUIRED COMPONENTS uc i18n)
find_package(nlohmann_json 3.11 REQUIRED)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
# URL parsing (and later HTTP) and DNS-SD through Avahi's dns_sd.h compatibility library.
pkg_check_modules(CURL REQUIRED IMPORTED_TARGET libcurl)
pkg_check_modules(DNSSD REQUIRED IMPORTED_TARGET avahi-compat-libdns_sd)
# QR codes of phone pairing tokens in the terminal.
pkg_check_modules(QRENCODE REQUIRED IMPORTED_TARGET libqrencode)
find_package(CLI11 2.1 REQUIRED)

# Linux-PAM 1.4 or later, for pam_start_confdir. PAM::PAM works with or without a pam.pc.
pkg_check_modules(PAM QUIET IMPORTED_TARGET pam>=1.4)
add_library(PAM::PAM INTERFACE IMPORTED)
if(PAM_FOUND)
  target_link_libraries(PAM::PAM INTERFACE PkgConfig::PAM)
else()
  find_path(PAM_INCLUDE_DIR security/pam_appl.h REQUIRED)
  find_library(PAM_LIBRARY pam REQUIRED)
  target_include_directories(PAM::PAM INTERFACE ${PAM_INCLUDE_DIR})
  target_link_libraries(PAM::PAM INTERFACE ${PAM_LIBRARY})
endif()

if(HARBORKEEPER_TESTS)
  find_package(GTest REQUIRED)
endif()
if(HARBORKEEPER_BENCH)
  find_package(benchmark REQUIRED)
endif()
