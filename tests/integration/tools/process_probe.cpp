// Reports what a tool started by the command runner inherited, so the
// integration tests can check it from the outside: its environment, working
// directory, open descriptors, signal mask and ignored signals, and whether it
// leads its own process group.
#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

int main() {
  for (char** variable = environ; *variable != nullptr; ++variable) std::cout << *variable << '\n';
  char directory[4096];
  std::cout << "cwd=" << (::getcwd(directory, sizeof directory) ? directory : "?") << '\n';

  DIR* descriptors = ::opendir("/proc/self/fd");
  if (descriptors == nullptr) return 1;
  std::cout << "fds=";
  bool first = true;
  // readdir_r is deprecated, and this single-threaded probe shares no stream.
  while (const dirent* entry = ::readdir(descriptors)) {  // NOLINT(concurrency-mt-unsafe)
    // Skips the listing's own descriptor.
    if (entry->d_name[0] == '.' || std::atoi(entry->d_name) == ::dirfd(descriptors)) continue;
    std::cout << (first ? "" : " ") << entry->d_name;
    first = false;
  }
  ::closedir(descriptors);
  std::cout << '\n';

  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("SigBlk:", 0) == 0 || line.rfind("SigIgn:", 0) == 0) std::cout << line << '\n';
  }
  std::cout << (::getpgrp() == ::getpid() ? "group leader" : "group member") << '\n';
  return 0;
}
