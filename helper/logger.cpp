#include "helper/logger.h"

#define SD_JOURNAL_SUPPRESS_LOCATION  // the location would always be this file
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <mutex>
#include <string>

#include "core/protection/helper_constants.h"

namespace harborkeeper {

namespace {

constexpr const char* journalSocketPath = "/run/systemd/journal/socket";

std::string_view levelName(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return "debug";
    case LogLevel::info:
      return "info";
    case LogLevel::error:
      return "error";
  }
  return "info";
}

int priorityOf(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return LOG_DEBUG;
    case LogLevel::info:
      return LOG_INFO;
    case LogLevel::error:
      return LOG_ERR;
  }
  return LOG_INFO;
}

// One line per message, written with one call so concurrent lines never mix.
class StandardErrorLogger : public Logger {
 public:
  void log(LogLevel level, std::string_view message) noexcept override {
    try {
      std::string line = "harborkeeper-helper: ";
      line.append(levelName(level)).append(": ");
      for (const char c : message) line.push_back(c == '\n' || c == '\r' ? ' ' : c);
      line.push_back('\n');
      const std::lock_guard lock(mutex_);
      writeAll(line);
    } catch (...) {  // NOLINT(bugprone-empty-catch): a log line lost to a full memory is no reason to stop
    }
  }

 private:
  static void writeAll(std::string_view text) noexcept {
    while (!text.empty()) {
      const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) return;
      text.remove_prefix(static_cast<std::size_t>(written));
    }
  }

  std::mutex mutex_;
};

// sd_journal_send is thread-safe. A message the journal refuses goes to
// standard error instead (one sent while journald is absent is dropped
// silently by the library; automatic mode checks for its socket first).
class JournalLogger final : public StandardErrorLogger {
 public:
  void log(LogLevel level, std::string_view message) noexcept override {
    const int length = message.size() > INT_MAX ? INT_MAX : static_cast<int>(message.size());
    const int result = sd_journal_send(
        "MESSAGE=%.*s", length, message.data(), "PRIORITY=%i", priorityOf(level),
        "SYSLOG_IDENTIFIER=harborkeeper-helper", "HARBORKEEPER_SUBSYSTEM=%.*s",
        static_cast<int>(HelperConstants::appBundleIdentifier.size()),
        HelperConstants::appBundleIdentifier.data(), "HARBORKEEPER_CATEGORY=HarborkeeperHelper", nullptr);
    if (result < 0) StandardErrorLogger::log(level, message);
  }
};

bool journalIsPreferred() { return ::access(journalSocketPath, F_OK) == 0 && ::isatty(STDERR_FILENO) == 0; }

}  // namespace

std::unique_ptr<Logger> makeProcessLogger(LogDestination destination) {
  const bool journal = destination == LogDestination::journal ||
                       (destination == LogDestination::automatic && journalIsPreferred());
  if (journal) return std::make_unique<JournalLogger>();
  return std::make_unique<StandardErrorLogger>();
}

}  // namespace harborkeeper
