#include "core/recovery/companion_recovery_service.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include "core/foundation/text.h"
#include "core/foundation/uuid.h"
#include "core/platform/internal/retry.h"
#include "core/platform/unique_fd.h"
#include "core/recovery/interactive_ssh_unlock_runner.h"

namespace harborkeeper {

namespace {

using State = CompanionUnlockState;
using Service = CompanionRecoveryService;

constexpr double kProbeTimeout = 8;
constexpr double kWaitBetweenProbes = 4.0;
constexpr int kWaitAttempts = 3;
constexpr std::string_view kNoKeysFile = "/dev/null";

std::string transcriptOf(const CommandResult& result) {
  return text::lowercased(result.standardOutput + "\n" + result.standardError);
}

bool containsAny(std::string_view transcript, std::initializer_list<std::string_view> needles) {
  return std::ranges::any_of(
      needles, [&](std::string_view needle) { return transcript.find(needle) != std::string_view::npos; });
}

bool isOneOf(State state, std::initializer_list<State> states) {
  return std::ranges::find(states, state) != states.end();
}

CompanionRecoveryCheckResult verdict(State state, std::string_view message,
                                     std::optional<std::string> fingerprint = std::nullopt,
                                     bool ambiguous = false) {
  return {state, std::string(message), std::move(fingerprint), ambiguous};
}

bool isBestEffort(const RecoveryProfile& profile) {
  return profile.hostKeyTrustPolicy == RecoveryHostKeyTrustPolicy::allowUnverifiedLocalNetwork;
}

void writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = internal::retryOnInterrupt([&] { return ::write(fd, bytes.data(), bytes.size()); });
    if (count < 0) throw std::system_error(errno, std::generic_category(), "write");
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

// One accepted host key for one ssh run. The name is unguessable and the file
// complete before it appears under that name, so ssh never reads a partial
// key; it is removed on every way out of the run.
class TemporaryKnownHostsFile final {
 public:
  explicit TemporaryKnownHostsFile(std::string_view keyLine) {
    const std::string name = "Harborkeeper-known-hosts-" + uuid::makeV4();
    const std::filesystem::path directory = std::filesystem::temp_directory_path();
    const std::string partial = directory / ("." + name + ".partial");
    UniqueFd file(::open(partial.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) throw std::system_error(errno, std::generic_category(), "open");
    try {
      writeAll(file.get(), std::string(keyLine) + "\n");
      if (::rename(partial.c_str(), (directory / name).c_str()) != 0) {
        throw std::system_error(errno, std::generic_category(), "rename");
      }
    } catch (...) {
      ::unlink(partial.c_str());
      throw;
    }
    path_ = directory / name;
  }
  TemporaryKnownHostsFile(const TemporaryKnownHostsFile&) = delete;
  TemporaryKnownHostsFile& operator=(const TemporaryKnownHostsFile&) = delete;
  ~TemporaryKnownHostsFile() { ::unlink(path_.c_str()); }

  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Every result of a run on the target names the key it was checked against.
template <typename Operation>
CompanionRecoveryCheckResult withTemporaryKnownHostsFile(const VerifiedRecoveryTarget& target,
                                                         const Operation& operation) {
  const std::string keyLine = target.knownHostsLine.value_or("");
  std::optional<TemporaryKnownHostsFile> file;
  if (!text::trimmed(keyLine).empty()) {
    try {
      file.emplace(keyLine);
    } catch (const std::exception&) {
      return verdict(State::needsAttention, "Could not prepare SSH host key verification.",
                     target.hostKeyFingerprint);
    }
  }
  CompanionRecoveryCheckResult outcome = operation(file ? file->path() : std::string(kNoKeysFile));
  outcome.hostKeyFingerprint = target.hostKeyFingerprint;
  return outcome;
}

void report(const RecoveryProgress& progress, RecoveryStep step, int attempt = 0) {
  if (progress) progress(step, attempt);
}

CompanionRecoveryService::Functions functionsFor(const CommandExecutor& runner, const std::string& sshPath) {
  return {
      [&runner](const std::string& executable, const std::vector<std::string>& arguments,
                std::optional<std::string_view> standardInput,
                double timeout) { return runner.run(executable, arguments, standardInput, timeout); },
      [](double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); },
      [unlockRunner = InteractiveSSHUnlockRunner(sshPath)](
          const RecoveryProfile& profile, const std::string& host, const std::string& knownHostsFile,
          std::string_view password) { return unlockRunner.unlock(profile, host, knownHostsFile, password); },
  };
}

// What the runs on one resolved target share.
struct TargetRun {
  const Service::Functions& functions;
  const RecoveryToolPaths& tools;
  const RecoveryProfile& profile;
  const VerifiedRecoveryTarget& target;
  const std::string& knownHostsFile;

  [[nodiscard]] CompanionRecoveryCheckResult probe(std::string_view username, bool ambiguousAuthIsLocked,
                                                   bool genericAuthFailureIsLocked) const {
    const CommandResult output =
        functions.run(tools.ssh, Service::sshProbeArguments(profile, target.host, knownHostsFile, username),
                      std::nullopt, kProbeTimeout);
    return Service::classifySSHProbe(output, target.hostKeyFingerprint, ambiguousAuthIsLocked,
                                     genericAuthFailureIsLocked);
  }

  [[nodiscard]] CompanionRecoveryCheckResult probeAsFileVaultUser() const {
    return probe(text::trimmed(profile.fileVaultUsername), true, isBestEffort(profile));
  }

  // A normal account that gets in proves the machine has finished booting.
  [[nodiscard]] CompanionRecoveryCheckResult probeAsNormalUser() const {
    return probe(profile.normalUsername(), false, true);
  }

  [[nodiscard]] CompanionRecoveryCheckResult waitForMac(const RecoveryProgress& progress) const {
    for (int attempt = 1; attempt <= kWaitAttempts; ++attempt) {
      report(progress, RecoveryStep::waitingForMac, attempt);
      functions.sleep(kWaitBetweenProbes);
      CompanionRecoveryCheckResult answer = probeAsNormalUser();
      if (isOneOf(answer.state, {State::sshReachable, State::online})) {
        return verdict(State::online, "Mac is back online.");
      }
      if (answer.state == State::needsAttention) return answer;
    }
    return verdict(State::booting, "Mac unlocked. Waiting for normal reachability.");
  }
};

}  // namespace

bool CompanionRecoveryCheckResult::isReachable() const {
  return isOneOf(state, {State::sshReachable, State::locked, State::unlocking, State::unlocked,
                         State::booting, State::online});
}

bool CompanionRecoveryCheckResult::requiresHostKeyConfirmation() const {
  return hostKeyFingerprint && !text::trimmed(*hostKeyFingerprint).empty() &&
         state == State::needsAttention &&
         (message == Service::hostKeyChangedMessage ||
          message == Service::hostKeyFirstUseConfirmationMessage);
}

// `tools` stays a copy: its ssh path is read in the same call that passes it on.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
CompanionRecoveryService::CompanionRecoveryService(const CommandExecutor& runner, RecoveryToolPaths tools,
                                                   HostKeyCaptureOrder order)
    : CompanionRecoveryService(functionsFor(runner, tools.ssh), tools, order) {}

CompanionRecoveryService::CompanionRecoveryService(Functions functions, RecoveryToolPaths tools,
                                                   HostKeyCaptureOrder order)
    : functions_(std::move(functions)), tools_(std::move(tools)), order_(order) {}

bool CompanionRecoveryService::transcriptContainsFileVaultLockedPrompt(std::string_view transcript) {
  return containsAny(transcript, {"this system is locked", "to unlock it, use a local"});
}

bool CompanionRecoveryService::transcriptLooksLikeGenericAuthFailure(std::string_view transcript) {
  return containsAny(transcript,
                     {"permission denied", "authentication failed", "no more authentication methods",
                      "connection closed by", "closed by remote host"});
}

CompanionRecoveryCheckResult CompanionRecoveryService::classifySSHProbe(
    const CommandResult& result, const std::optional<std::string>& capturedHostKeyFingerprint,
    bool treatsAmbiguousAuthAsLocked, bool treatsGenericAuthFailureAsLocked) {
  const std::string transcript = transcriptOf(result);
  const auto& fingerprint = capturedHostKeyFingerprint;
  if (containsAny(transcript, {"system successfully unlocked"})) {
    return verdict(State::unlocked, "Mac unlocked.", fingerprint);
  }
  if (transcriptContainsFileVaultLockedPrompt(transcript)) {
    return verdict(State::locked, "FileVault unlock prompt is reachable.", fingerprint);
  }
  if (result.exitCode == 0) return verdict(State::online, "Mac is running normally.", fingerprint);
  if (result.timedOut) return verdict(State::offline, "Recovery check timed out.");
  if (containsAny(transcript, {"password:"})) {
    // Asked for a password without the FileVault notice: a booted machine does the same.
    if (treatsAmbiguousAuthAsLocked) {
      return verdict(State::locked, ambiguousPasswordPromptMessage, fingerprint, true);
    }
    return verdict(State::sshReachable, "Mac is running normally.", fingerprint);
  }
  if (transcriptLooksLikeGenericAuthFailure(transcript)) {
    if (treatsAmbiguousAuthAsLocked && treatsGenericAuthFailureAsLocked) {
      return verdict(State::locked, ambiguousPasswordPromptMessage, fingerprint, true);
    }
    return verdict(State::sshReachable,
                   "Mac is reachable, but SSH authentication did not prove FileVault is locked.",
                   fingerprint);
  }
  if (containsAny(transcript, {"could not resolve hostname", "name or service not known",
                               "nodename nor servname provided", "no route to host", "connection refused",
                               "operation timed out"})) {
    return verdict(State::offline, "Mac is not reachable.");
  }
  return verdict(State::needsAttention, "Mac responded, but the recovery state is unclear.", fingerprint);
}

// Success comes first: a run that printed the notice and then hung still unlocked the disk.
CompanionRecoveryCheckResult CompanionRecoveryService::classifySSHUnlock(
    const CommandResult& result, const std::optional<std::string>& capturedHostKeyFingerprint) {
  const std::string transcript = transcriptOf(result);
  const auto& fingerprint = capturedHostKeyFingerprint;
  if (containsAny(transcript, {"system successfully unlocked"})) {
    return verdict(State::unlocked, "Mac unlocked. It may take a minute to finish booting.", fingerprint);
  }
  if (result.timedOut) return verdict(State::needsAttention, "Unlock timed out.", fingerprint);
  if (containsAny(transcript, {"permission denied", "authentication failed", "try again", "incorrect"})) {
    return verdict(State::needsAttention, "The FileVault password was rejected.", fingerprint);
  }
  if (transcriptContainsFileVaultLockedPrompt(transcript)) {
    return verdict(State::locked, "FileVault is still locked.", fingerprint);
  }
  return verdict(State::needsAttention, "Mac responded, but unlock did not complete.", fingerprint);
}

// Batch mode with no prompts: the run only collects what the server says
// before authentication fails, and "exit" ends a session that gets in.
std::vector<std::string> CompanionRecoveryService::sshProbeArguments(const RecoveryProfile& profile,
                                                                     std::string_view host,
                                                                     std::string_view knownHostsFile,
                                                                     std::string_view username) {
  const std::string strict = knownHostsFile == kNoKeysFile ? "no" : "yes";
  std::vector<std::string> arguments{"-p", std::to_string(profile.sshPort)};
  for (std::string option : std::initializer_list<std::string>{
           "BatchMode=yes", "NumberOfPasswordPrompts=0", "ConnectTimeout=5", "ConnectionAttempts=1",
           "StrictHostKeyChecking=" + strict, "UserKnownHostsFile=" + std::string(knownHostsFile),
           "GlobalKnownHostsFile=/dev/null"}) {
    arguments.emplace_back("-o");
    arguments.push_back(std::move(option));
  }
  arguments.push_back(std::string(username) + "@" + std::string(host));
  arguments.emplace_back("exit");
  return arguments;
}

CompanionRecoveryCheckResult CompanionRecoveryService::checkRecoveryState(
    const RecoveryProfile& profile) const {
  const RecoveryTargetResolution resolution = resolveTarget(profile);
  if (const auto* failure = std::get_if<CompanionRecoveryCheckResult>(&resolution)) return *failure;
  const auto& target = std::get<VerifiedRecoveryTarget>(resolution);
  return withTemporaryKnownHostsFile(target, [&](const std::string& knownHostsFile) {
    const TargetRun run{functions_, tools_, profile, target, knownHostsFile};
    CompanionRecoveryCheckResult first = run.probeAsFileVaultUser();
    if (first.state == State::locked && !first.isAmbiguousRecoveryCandidate) return first;
    if (profile.normalUsername() == text::trimmed(profile.fileVaultUsername)) return first;
    CompanionRecoveryCheckResult second = run.probeAsNormalUser();
    if (isOneOf(second.state, {State::sshReachable, State::online})) {
      first.state = second.state;
      first.message = std::move(second.message);
      first.isAmbiguousRecoveryCandidate = second.isAmbiguousRecoveryCandidate;
    }
    return first;
  });
}

CompanionRecoveryCheckResult CompanionRecoveryService::unlockLockedMac(
    const RecoveryProfile& profile, std::string_view password, const RecoveryProgress& progress) const {
  if (password.empty()) return verdict(State::needsAttention, "Enter the FileVault password.");
  const RecoveryTargetResolution resolution = resolveTarget(profile);
  if (const auto* failure = std::get_if<CompanionRecoveryCheckResult>(&resolution)) return *failure;
  const auto& target = std::get<VerifiedRecoveryTarget>(resolution);
  return withTemporaryKnownHostsFile(target, [&](const std::string& knownHostsFile) {
    const TargetRun run{functions_, tools_, profile, target, knownHostsFile};
    report(progress, RecoveryStep::probing);
    CompanionRecoveryCheckResult probe = run.probeAsFileVaultUser();
    if (isOneOf(probe.state,
                {State::sshReachable, State::unlocking, State::unlocked, State::booting, State::online})) {
      return verdict(State::online, "Recovery is not needed right now.");
    }
    if (probe.state != State::locked) return probe;
    report(progress, RecoveryStep::unlocking);
    CompanionRecoveryCheckResult unlock = classifySSHUnlock(
        functions_.unlock(profile, target.host, knownHostsFile, password), target.hostKeyFingerprint);
    if (unlock.state != State::unlocked) return unlock;
    return run.waitForMac(progress);
  });
}

}  // namespace harborkeeper
