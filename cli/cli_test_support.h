#pragma once

// Runs the whole command in process, as a user would type it. Test code only.

#include <sstream>
#include <string>
#include <vector>

#include "cli/cli_app.h"

namespace harborkeeper::testing_support {

struct CliRun {
  int status;
  std::string out, err;
};

// `arguments` without the program's name.
inline CliRun run(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "harborkeeper");
  std::ostringstream out;
  std::ostringstream err;
  const int status = cli::runCli(static_cast<int>(arguments.size()), arguments.data(), out, err);
  return {status, out.str(), err.str()};
}

}  // namespace harborkeeper::testing_support
