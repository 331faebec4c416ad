#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "core/platform/command_runner.h"
#include "core/recovery/recovery_profile.h"

namespace harborkeeper {

struct InteractiveUnlockTiming {
  std::chrono::milliseconds deadline{25'000};
  // Longest single wait for output; the prompt is answered as soon as it arrives.
  std::chrono::milliseconds pollInterval{50};
  std::chrono::milliseconds afterSuccess{200};
  std::chrono::milliseconds terminateGrace{1'000};
};

// Types the FileVault password into one ssh session on a pseudo-terminal:
// waits for the prompt, writes the password once, watches for the success
// notice. The transcript it returns never holds the password, the profile's
// user names or the host (each of at least 3 characters).
class InteractiveSSHUnlockRunner final {
 public:
  using Timing = InteractiveUnlockTiming;

  explicit InteractiveSSHUnlockRunner(std::string sshPath = "/usr/bin/ssh", Timing timing = {});

  // standardOutput: the redacted transcript; standardError: empty, or "Unlock
  // timed out." (exitCode -2, timedOut) or "Could not create an interactive
  // SSH session." (exitCode -1).
  [[nodiscard]] CommandResult unlock(const RecoveryProfile& profile, const std::string& host,
                                     const std::string& knownHostsFile, std::string_view password) const;

  static std::vector<std::string> sshUnlockArguments(const RecoveryProfile& profile, std::string_view host,
                                                     std::string_view knownHostsFile);
  // Trimmed, at least 3 characters, duplicates dropped, first positions kept.
  static std::vector<std::string> redactionCandidates(const std::vector<std::string>& values);
  // The password (exact), then the user names and the host (any letter case).
  static std::string redactTranscript(std::string_view transcript, std::string_view password,
                                      const RecoveryProfile& profile, std::string_view host);

 private:
  std::string sshPath_;
  Timing timing_;
};

}  // namespace harborkeeper
