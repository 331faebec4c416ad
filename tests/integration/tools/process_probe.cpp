// Reports what a tool started by the command runner inherited, one aspect per
// mode, so the integration tests can check it from the outside.
#include <dirent.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

extern char** environ;

namespace {

// Open descriptors, without the one this listing itself uses.
int listDescriptors() {
  DIR* directory = ::opendir("/proc/self/fd");
  if (directory == nullptr) return 1;
  std::string listing;
  while (const dirent* entry = ::readdir(directory)) {
    if (entry->d_name[0] == '.' || std::atoi(entry->d_name) == ::dirfd(directory)) continue;
    listing += (listing.empty() ? "" : " ") + std::string(entry->d_name);
  }
  ::closedir(directory);
  std::cout << listing << '\n';
  return 0;
}

int reportSignals() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("SigBlk:", 0) == 0 || line.rfind("SigIgn:", 0) == 0) std::cout << line << '\n';
  }
  return 0;
}

int reportGroup() {
  std::cout << (::getpgrp() == ::getpid() ? "leader " : "member ") << ::getpgrp() << '\n';
  return 0;
}

int reportEnvironment() {
  for (char** variable = environ; *variable != nullptr; ++variable) std::cout << *variable << '\n';
  char directory[4096];
  std::cout << "cwd=" << (::getcwd(directory, sizeof directory) ? directory : "?") << '\n';
  return 0;
}

// Byte count and 64-bit FNV-1a of standard input.
int digestInput() {
  std::uint64_t hash = 14695981039346656037ull;
  std::uint64_t count = 0;
  char buffer[65536];
  for (ssize_t n; (n = ::read(STDIN_FILENO, buffer, sizeof buffer)) > 0;) {
    for (ssize_t i = 0; i < n; ++i) hash = (hash ^ static_cast<unsigned char>(buffer[i])) * 1099511628211ull;
    count += static_cast<std::uint64_t>(n);
  }
  std::printf("%llu %016llx\n", static_cast<unsigned long long>(count),
              static_cast<unsigned long long>(hash));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "fds") return listDescriptors();
  if (mode == "signals") return reportSignals();
  if (mode == "group") return reportGroup();
  if (mode == "environment") return reportEnvironment();
  if (mode == "digest") return digestInput();
  std::cerr << "unknown mode: " << mode << '\n';
  return 2;
}
