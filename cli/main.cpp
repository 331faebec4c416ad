#include <iostream>

#include "cli/cli_app.h"

#if defined(__SANITIZE_THREAD__)
// libdbus (through avahi-client, during discovery) takes its connection and bus locks in
// either order on one thread. It is not built with ThreadSanitizer, so the report is about
// its internals, not a lock of ours. Built in, because the tests run the CLI with a clean
// environment.
extern "C" const char* __tsan_default_suppressions() { return "deadlock:libdbus-1.so.3\n"; }
#endif

int main(int argc, char** argv) { return harborkeeper::cli::runCli(argc, argv, std::cout, std::cerr); }
