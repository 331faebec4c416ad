#include "core/recovery/interactive_ssh_unlock_runner.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "core/foundation/bytes.h"
#include "core/foundation/text.h"
#include "core/platform/pseudo_terminal_process.h"

namespace harborkeeper {
namespace {

using Steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr char kSessionFailure[] = "Could not create an interactive SSH session.";
constexpr char kTimedOut[] = "Unlock timed out.";
constexpr std::string_view kPrompt = "password:";
constexpr std::string_view kUnlockedNotice = "system successfully unlocked";
// The pty takes a password line at once; this only bounds a child that never reads.
constexpr milliseconds kWriteLimit{1'000};

// Owns every buffer that may hold the password (the terminal may echo it) and
// wipes them all however the run ends.
struct SessionBuffers {
  std::string transcript;  // the terminal's raw bytes
  std::string decoded;
  std::string lowered;
  SessionBuffers() = default;
  SessionBuffers(const SessionBuffers&) = delete;
  SessionBuffers& operator=(const SessionBuffers&) = delete;
  ~SessionBuffers() {
    secureWipe(transcript);
    secureWipe(decoded);
    secureWipe(lowered);
  }

  void decode() {
    secureWipe(decoded);
    decoded = text::repairedUtf8(transcript);
    secureWipe(lowered);
    lowered = text::lowercased(decoded);
  }
  [[nodiscard]] bool shows(std::string_view needle) const {
    return lowered.find(needle) != std::string::npos;
  }
};

bool writeLine(PseudoTerminalProcess& ssh, std::string_view password) {
  std::string line;
  line.reserve(password.size() + 1);
  line.append(password).push_back('\n');
  const bool written = ssh.writeAll(line, kWriteLimit);
  secureWipe(line);
  return written;
}

void stop(PseudoTerminalProcess& ssh, milliseconds grace) {
  if (ssh.hasExited()) return;
  ssh.terminate();
  if (!ssh.waitForExit(grace)) ssh.kill();
}

// Answers the prompt and watches for the end of the session. False when the
// deadline passed first.
bool converse(PseudoTerminalProcess& ssh, SessionBuffers& buffers, std::string_view password,
              const InteractiveUnlockTiming& timing) {
  const auto deadline = Steady::now() + timing.deadline;
  bool passwordSent = false;
  while (Steady::now() < deadline) {
    ssh.readAvailable(buffers.transcript);
    buffers.decode();
    if (!passwordSent && buffers.shows(kPrompt)) {
      // Sent once, whatever follows: a second try could count against the lockout.
      writeLine(ssh, password);
      passwordSent = true;
    }
    if (buffers.shows(kUnlockedNotice)) {
      std::this_thread::sleep_for(timing.afterSuccess);
      ssh.readAvailable(buffers.transcript);
      stop(ssh, timing.terminateGrace);
      return true;
    }
    if (ssh.hasExited()) {
      ssh.readAvailable(buffers.transcript);
      return true;
    }
    // Wakes as soon as ssh prints or exits, so a prompt is answered at once.
    const auto left = std::chrono::ceil<milliseconds>(deadline - Steady::now());
    ssh.waitForOutputOrExit(std::clamp(left, milliseconds{0}, timing.pollInterval));
  }
  return false;
}

std::string launchFailure(const std::string& executable, int error) {
  const char* cause = ::strerrordesc_np(error);
  return "Could not launch " + executable + ": " + (cause != nullptr ? cause : "Unknown error") + ".";
}

}  // namespace

InteractiveSSHUnlockRunner::InteractiveSSHUnlockRunner(std::string sshPath, Timing timing)
    : sshPath_(std::move(sshPath)), timing_(timing) {}

CommandResult InteractiveSSHUnlockRunner::unlock(const RecoveryProfile& profile, const std::string& host,
                                                 const std::string& knownHostsFile,
                                                 std::string_view password) const {
  PseudoTerminalProcess ssh(sshPath_, sshUnlockArguments(profile, host, knownHostsFile));
  switch (ssh.startFailure()) {
    case PseudoTerminalProcess::StartFailure::none:
      break;
    case PseudoTerminalProcess::StartFailure::terminal:
      return {"", kSessionFailure, -1, false};
    case PseudoTerminalProcess::StartFailure::launch:
      return {"", launchFailure(sshPath_, ssh.startError()), -1, false};
  }

  SessionBuffers buffers;
  const bool finished = converse(ssh, buffers, password, timing_);
  buffers.decode();
  const std::string output = redactTranscript(buffers.decoded, password, profile, host);
  if (!finished) {
    stop(ssh, timing_.terminateGrace);
    return {output, kTimedOut, -2, true};
  }
  return {output, "", ssh.exitCode().value_or(-1), false};
}

std::vector<std::string> InteractiveSSHUnlockRunner::sshUnlockArguments(const RecoveryProfile& profile,
                                                                        std::string_view host,
                                                                        std::string_view knownHostsFile) {
  const std::string strict = knownHostsFile == "/dev/null" ? "no" : "yes";
  return {"-tt",
          "-p",
          std::to_string(profile.sshPort),
          "-o",
          "BatchMode=no",
          "-o",
          "NumberOfPasswordPrompts=1",
          "-o",
          "PreferredAuthentications=keyboard-interactive,password",
          "-o",
          "KbdInteractiveAuthentication=yes",
          "-o",
          "PasswordAuthentication=yes",
          "-o",
          "ConnectTimeout=8",
          "-o",
          "ConnectionAttempts=1",
          "-o",
          "StrictHostKeyChecking=" + strict,
          "-o",
          "UserKnownHostsFile=" + std::string(knownHostsFile),
          "-o",
          "GlobalKnownHostsFile=/dev/null",
          text::trimmed(profile.fileVaultUsername) + "@" + std::string(host)};
}

std::vector<std::string> InteractiveSSHUnlockRunner::redactionCandidates(
    const std::vector<std::string>& values) {
  std::vector<std::string> candidates;
  for (const auto& value : values) {
    std::string candidate = text::trimmed(value);
    // Shorter names would shred the transcript wherever their letters occur.
    if (text::userPerceivedLength(candidate) < 3) continue;
    if (std::find(candidates.begin(), candidates.end(), candidate) != candidates.end()) continue;
    candidates.push_back(std::move(candidate));
  }
  return candidates;
}

std::string InteractiveSSHUnlockRunner::redactTranscript(std::string_view transcript,
                                                         std::string_view password,
                                                         const RecoveryProfile& profile,
                                                         std::string_view host) {
  std::string redacted = text::replacingOccurrences(transcript, password, "[redacted]");
  for (const auto& user : redactionCandidates({profile.fileVaultUsername, profile.normalSSHUsername})) {
    redacted = text::replacingCaseInsensitive(redacted, user, "[redacted-user]");
  }
  for (const auto& name : redactionCandidates({std::string(host)})) {
    redacted = text::replacingCaseInsensitive(redacted, name, "[redacted-host]");
  }
  return redacted;
}

}  // namespace harborkeeper
