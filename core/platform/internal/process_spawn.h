#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "core/platform/unique_fd.h"

namespace harborkeeper::internal {

// A tool just started, and our ends of its standard streams (non-blocking).
struct LaunchedTool {
  pid_t pid = -1;
  UniqueFd input;  // open only when the tool was given an input pipe
  UniqueFd output;
  UniqueFd error;
};

// Starts `executable` with an empty environment in "/", as the leader of its
// own process group, with default signal dispositions, an empty signal mask
// and no descriptors beyond 0-2. Standard input is a pipe when `withInput`,
// otherwise /dev/null. Throws std::system_error (the code names the cause)
// when the tool could not be started; once it has been, nothing throws.
LaunchedTool launchTool(const std::string& executable, const std::vector<std::string>& arguments,
                        bool withInput);

// The null-terminated argv of exec and posix_spawn; it points into the given
// strings, which must outlive it.
std::vector<char*> argumentVector(const std::string& executable, const std::vector<std::string>& arguments);

}  // namespace harborkeeper::internal
