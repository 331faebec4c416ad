#pragma once

#include <memory>
#include <string_view>

namespace harborkeeper {

enum class LogLevel { debug, info, error };

// The daemon's one log. Messages never carry a secret or a peer's payload.
// Thread-safe.
class Logger {
 public:
  virtual ~Logger() = default;
  virtual void log(LogLevel level, std::string_view message) noexcept = 0;
  void info(std::string_view message) noexcept { log(LogLevel::info, message); }
  void error(std::string_view message) noexcept { log(LogLevel::error, message); }
};

enum class LogDestination {
  automatic,  // journald when its socket exists and standard error is not a terminal
  journal,    // sd_journal_send with SYSLOG_IDENTIFIER=harborkeeper-helper
  standardError,
};

// The process logger: subsystem HelperConstants::appBundleIdentifier,
// category "HarborkeeperHelper".
std::unique_ptr<Logger> makeProcessLogger(LogDestination destination);

}  // namespace harborkeeper
