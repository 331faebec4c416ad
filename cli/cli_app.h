#pragma once

#include <ostream>

// The `harborkeeper` command: the daemon's trusted client.
namespace harborkeeper::cli {

// Parses the command line, runs the chosen command and returns the process's
// exit status (see ExitStatus): 0 success, 1 failure reported by the helper or
// information not available, 2 usage error, 3 helper unreachable. `--help`
// exits 0. Errors go to `err` prefixed "harborkeeper: ".
int runCli(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace harborkeeper::cli
