#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace harborkeeper {

// What one run of a system tool produced. Output texts are decoded as UTF-8
// (invalid sequences repaired) and trimmed of white space and newlines.
struct CommandResult {
  std::string standardOutput;
  std::string standardError;
  // The tool's exit status; -1 it could not be started; -2 it was stopped for
  // exceeding its time limit. A tool ended by a signal reports the signal's number.
  std::int32_t exitCode = 0;
  bool timedOut = false;

  bool operator==(const CommandResult&) const = default;
};

// The seam through which every part of the system starts another process.
// Implementations never throw: every failure comes back as a CommandResult.
class CommandExecutor {
 public:
  virtual ~CommandExecutor() = default;

  // `executable` must be an absolute path; `arguments` excludes the program
  // name. `standardInput`, when present (even empty), is written to the tool's
  // standard input, which is then closed; when absent the tool reads
  // /dev/null. `timeout` (seconds) defaults to the executor's own limit.
  virtual CommandResult run(const std::string& executable, const std::vector<std::string>& arguments,
                            std::optional<std::string_view> standardInput = std::nullopt,
                            std::optional<double> timeout = std::nullopt) const noexcept = 0;
};

// Runs a tool to completion under a hard time limit: empty environment,
// working directory "/", its own process group, default signal dispositions,
// no inherited descriptors. Output is drained while the tool runs. A run never
// lasts longer than its limit + 1 s + 100 ms: past the limit the group gets
// SIGTERM, one second later SIGKILL. A limit that is negative, NaN or infinite
// counts as 0 (the tool is stopped at once and the run reports a timeout).
// Once the tool itself has ended, leftovers of its group that still hold its
// output open are killed rather than waited for.
// Thread-safe: concurrent runs are independent. Callers must not set SIGCHLD
// to SIG_IGN (the exit status would be lost; such a run reports -1).
class CommandRunner final : public CommandExecutor {
 public:
  explicit CommandRunner(double defaultTimeout) : defaultTimeout_(defaultTimeout) {}

  [[nodiscard]] double defaultTimeout() const { return defaultTimeout_; }

  CommandResult run(const std::string& executable, const std::vector<std::string>& arguments,
                    std::optional<std::string_view> standardInput = std::nullopt,
                    std::optional<double> timeout = std::nullopt) const noexcept override;

  // "30" for a whole number of seconds, otherwise "%.1f" ("2.5").
  static std::string timeoutDescription(double seconds);

 private:
  double defaultTimeout_;
};

}  // namespace harborkeeper
