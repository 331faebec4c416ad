#pragma once

// Helpers shared by the command runner tests (unit and integration). Test code only.

#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

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

// Stands in for the system's tools: records every run and answers with the
// reply set for "<tool's file name> <first argument>", else `otherwise`.
struct RecordingTools final : CommandExecutor {
  struct Run {
    std::string tool;
    std::vector<std::string> arguments;
    std::optional<std::string> input;
    std::optional<double> timeout;
  };

  CommandResult run(const std::string& tool, const std::vector<std::string>& arguments,
                    std::optional<std::string_view> input,
                    std::optional<double> timeout) const noexcept override {
    const std::lock_guard lock(mutex);
    runs.push_back({tool, arguments, input ? std::optional<std::string>(*input) : std::nullopt, timeout});
    const std::string key = std::filesystem::path(tool).filename().string() + " " +
                            (arguments.empty() ? std::string() : arguments.front());
    const auto reply = replies.find(key);
    return reply == replies.end() ? otherwise : reply->second;
  }

  mutable std::mutex mutex;
  mutable std::vector<Run> runs;
  std::map<std::string, CommandResult> replies;
  CommandResult otherwise{"", "", 1, false};
};

}  // namespace testing_support
}  // namespace harborkeeper
