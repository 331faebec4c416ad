#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "core/foundation/bytes.h"
#include "core/ipc/helper_protocol.h"
#include "core/platform/command_runner.h"

// Arming a FileVault authenticated restart for the next restart: the user's
// name and password reach fdesetup only on its standard input, and neither
// can come back in a failure message.
namespace harborkeeper {

namespace AuthRestartPlist {
// An XML property list of exactly two strings: "Username" (the trimmed name)
// and "Password" (as received). Throws plist::EncodeError for a value no
// property list can carry (a NUL). The caller wipes the result.
Bytes makeData(std::string_view username, std::string_view password);
}  // namespace AuthRestartPlist

namespace AuthRestartFailureSanitizer {
// Replaces the name (by "[user]") and the password (by "[password]"), each
// as typed and XML-escaped, longest first and without regard to case; then
// scrubs labelled secrets and private keys.
std::string sanitize(std::string_view output, std::string_view username, std::string_view password);
}  // namespace AuthRestartFailureSanitizer

class AuthRestartRunner final {
 public:
  static constexpr std::string_view fdesetupPath = "/usr/bin/fdesetup";
  static constexpr double defaultAuthRestartTimeout = 110.0;

  AuthRestartRunner(std::shared_ptr<const CommandExecutor> commandRunner,
                    std::string fdesetupPath = std::string(AuthRestartRunner::fdesetupPath),
                    double authRestartTimeout = defaultAuthRestartTimeout);

  // Runs `fdesetup authrestart -inputplist -delayminutes -1`. Never throws.
  [[nodiscard]] ipc::HelperCommandResult armNextRestart(std::string_view username,
                                                        std::string_view password) const noexcept;

  // The failure text of a run that exited non-zero: its output and error
  // joined by a blank and sanitised, or the exit code when both are empty.
  static std::string sanitizedFailureMessage(const CommandResult& result, std::string_view username,
                                             std::string_view password);

 private:
  std::shared_ptr<const CommandExecutor> commandRunner_;
  std::string fdesetupPath_;
  double authRestartTimeout_;
};

}  // namespace harborkeeper
