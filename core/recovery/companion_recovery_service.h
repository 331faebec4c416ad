#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "core/platform/command_runner.h"
#include "core/recovery/recovery_profile.h"

// Deciding, without a password, what state a companion machine is in; learning
// and checking its SSH identity; and unlocking it at the FileVault SSH prompt.
namespace harborkeeper {

struct RecoveryToolPaths {
  std::string nc = "/usr/bin/nc";
  std::string ssh = "/usr/bin/ssh";
  std::string sshKeyscan = "/usr/bin/ssh-keyscan";
  std::string sshKeygen = "/usr/bin/ssh-keygen";
};

struct CompanionReachabilityResult {
  bool isReachable = false;
  std::string message;
  bool operator==(const CompanionReachabilityResult&) const = default;
};

// TCP reachability of one host and port with nc.
class CompanionReachabilityService final {
 public:
  // `runner` must outlive the service.
  explicit CompanionReachabilityService(const CommandExecutor& runner, RecoveryToolPaths tools = {});
  [[nodiscard]] CompanionReachabilityResult checkSSH(std::string_view host, std::int64_t port) const;

 private:
  const CommandExecutor& runner_;
  RecoveryToolPaths tools_;
};

struct CompanionRecoveryCheckResult {
  CompanionUnlockState state = CompanionUnlockState::offline;
  std::string message;
  std::optional<std::string> hostKeyFingerprint;
  bool isAmbiguousRecoveryCandidate = false;

  bool operator==(const CompanionRecoveryCheckResult&) const = default;
  [[nodiscard]] bool isReachable() const;
  [[nodiscard]] bool requiresHostKeyConfirmation() const;
};

struct CompanionHostKeyCaptureResult {
  std::optional<std::string> fingerprint;
  std::string message;
  bool operator==(const CompanionHostKeyCaptureResult&) const = default;
  [[nodiscard]] bool isSuccess() const { return fingerprint.has_value(); }
};

struct HostKeyMaterialCaptureResult {
  std::optional<std::string> fingerprint;
  std::string knownHostsLine;  // empty on failure
  std::string message;
  bool operator==(const HostKeyMaterialCaptureResult&) const = default;
};

// A host to run ssh against. Without a key line it is unverified (only the
// "Best effort" policy may use such a target).
struct VerifiedRecoveryTarget {
  std::string host;
  std::optional<std::string> hostKeyFingerprint;
  std::optional<std::string> knownHostsLine;
  bool operator==(const VerifiedRecoveryTarget&) const = default;
};

using RecoveryTargetResolution = std::variant<VerifiedRecoveryTarget, CompanionRecoveryCheckResult>;

// How target resolution learns the candidates' keys. Both give the same
// decisions; `concurrent` scans every candidate at once, so stale addresses
// cost one scan time in total instead of one each, while `ordered` scans one
// by one and stops at the first decisive host.
enum class HostKeyCaptureOrder { concurrent, ordered };

// What an unlock is doing, for a caller that shows progress.
enum class RecoveryStep { probing, unlocking, waitingForMac };
// `attempt` counts from 1 for waitingForMac (of 3), 0 otherwise.
using RecoveryProgress = std::function<void(RecoveryStep step, int attempt)>;

class CompanionRecoveryService final {
 public:
  // Runs a tool: executable, arguments, standard input (absent: /dev/null), time limit in seconds.
  using RunCommand = std::function<CommandResult(const std::string&, const std::vector<std::string>&,
                                                 std::optional<std::string_view>, double)>;
  using Sleep = std::function<void(double seconds)>;
  // The interactive unlock: profile, target host, known-hosts path, password.
  using InteractiveUnlock = std::function<CommandResult(const RecoveryProfile&, const std::string&,
                                                        const std::string&, std::string_view)>;

  struct Functions {
    RunCommand run;
    Sleep sleep;
    InteractiveUnlock unlock;
  };

  // Real tools through `runner` (which must outlive the service), a blocking
  // sleep, and InteractiveSSHUnlockRunner on tools.ssh.
  explicit CompanionRecoveryService(const CommandExecutor& runner, RecoveryToolPaths tools = {},
                                    HostKeyCaptureOrder order = HostKeyCaptureOrder::concurrent);
  explicit CompanionRecoveryService(Functions functions, RecoveryToolPaths tools = {},
                                    HostKeyCaptureOrder order = HostKeyCaptureOrder::concurrent);

  static constexpr std::string_view hostKeyChangedMessage =
      "This Mac's trusted identity changed. Confirm this Mac before recovering.";
  static constexpr std::string_view hostKeyFirstUseConfirmationMessage =
      "Confirm this Mac's SSH identity before recovering.";
  static constexpr std::string_view hostKeyVerificationRequiredMessage =
      "Capture SSH trust, or choose Best effort for this trusted network before recovering.";
  static constexpr std::string_view ambiguousPasswordPromptMessage =
      "SSH is asking for a password. Recover this Mac if it is waiting at FileVault.";

  // All of these block for as long as the tools run (bounded by their limits).
  [[nodiscard]] CompanionRecoveryCheckResult checkRecoveryState(const RecoveryProfile& profile) const;
  // The password is sent at most once, only to a target the policy allows, and
  // only after a probe found the machine locked.
  [[nodiscard]] CompanionRecoveryCheckResult unlockLockedMac(const RecoveryProfile& profile, std::string_view password,
                                                             const RecoveryProgress& progress = {}) const;
  [[nodiscard]] CompanionHostKeyCaptureResult captureHostKeyFingerprint(std::string_view host,
                                                                        std::int64_t port) const;
  [[nodiscard]] HostKeyMaterialCaptureResult captureHostKeyMaterial(std::string_view host, std::int64_t port) const;
  [[nodiscard]] RecoveryTargetResolution resolveTarget(const RecoveryProfile& profile) const;

  static std::optional<std::string> parseSHA256Fingerprint(std::string_view text);
  static CompanionRecoveryCheckResult classifySSHProbe(const CommandResult& result,
                                                       const std::optional<std::string>& capturedHostKeyFingerprint,
                                                       bool treatsAmbiguousAuthAsLocked,
                                                       bool treatsGenericAuthFailureAsLocked);
  static CompanionRecoveryCheckResult classifySSHUnlock(const CommandResult& result,
                                                        const std::optional<std::string>& capturedHostKeyFingerprint);
  static std::vector<std::string> candidateHosts(const RecoveryProfile& profile);
  static std::vector<std::string> sshProbeArguments(const RecoveryProfile& profile, std::string_view host,
                                                    std::string_view knownHostsFile, std::string_view username);
  // On the lower-cased transcript (standard output, "\n", standard error).
  static bool transcriptContainsFileVaultLockedPrompt(std::string_view transcript);
  static bool transcriptLooksLikeGenericAuthFailure(std::string_view transcript);

 private:
  Functions functions_;
  RecoveryToolPaths tools_;
  HostKeyCaptureOrder order_;
};

// The ssh command lines an operator can type to unlock by hand.
class SSHUnlockCommandBuilder final {
 public:
  // For the first recovery host candidate, or localHostname when there is none.
  [[nodiscard]] std::string command(const RecoveryProfile& profile) const;
  // One per candidate host, in candidate order.
  [[nodiscard]] std::vector<std::string> commands(const RecoveryProfile& profile) const;
  // Unchanged when every character is a letter, digit, ".", "_" or "-";
  // otherwise single-quoted with each "'" written as '\''.
  static std::string shellEscaped(std::string_view text);
};

}  // namespace harborkeeper
