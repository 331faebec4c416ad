#pragma once

// Helpers shared by the command runner tests (unit and integration). Test code only.

#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <ostream>

#include "core/platform/command_runner.h"

namespace harborkeeper {

// Readable failure output for the result record; long outputs are cut.
inline void PrintTo(const CommandResult& r, std::ostream* os) {
  *os << "{out: \"" << r.standardOutput.substr(0, 300) << "\", err: \"" << r.standardError.substr(0, 300)
      << "\", exitCode: " << r.exitCode << ", timedOut: " << std::boolalpha << r.timedOut << "}";
}

namespace testing_support {

using SteadyClock = std::chrono::steady_clock;

inline double secondsSince(SteadyClock::time_point start) {
  return std::chrono::duration<double>(SteadyClock::now() - start).count();
}

// No child of this process is left, not even an unreaped zombie.
inline bool hasNoChildren() { return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

}  // namespace testing_support
}  // namespace harborkeeper
