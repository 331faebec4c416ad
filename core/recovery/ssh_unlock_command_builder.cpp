#include <string>
#include <string_view>
#include <vector>

#include "core/foundation/text.h"
#include "core/recovery/companion_recovery_service.h"

namespace harborkeeper {

namespace {

bool isShellSafe(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
         c == '-';
}

std::string commandFor(const RecoveryProfile& profile, std::string_view host) {
  std::string command = "ssh";
  if (profile.sshPort != 22) command += " -p " + std::to_string(profile.sshPort);
  command += " " + SSHUnlockCommandBuilder::shellEscaped(text::trimmed(profile.fileVaultUsername)) + "@" +
             SSHUnlockCommandBuilder::shellEscaped(text::trimmed(host));
  return command;
}

}  // namespace

// Members rather than static: callers hold a builder.
// NOLINTNEXTLINE(readability-convert-member-functions-to-static)
std::string SSHUnlockCommandBuilder::command(const RecoveryProfile& profile) const {
  return commandFor(profile, profile.connectionHost());
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static)
std::vector<std::string> SSHUnlockCommandBuilder::commands(const RecoveryProfile& profile) const {
  std::vector<std::string> commands;
  for (const std::string& host : profile.recoveryHostCandidates()) {
    commands.push_back(commandFor(profile, host));
  }
  return commands;
}

std::string SSHUnlockCommandBuilder::shellEscaped(std::string_view text) {
  bool safe = true;
  for (const char c : text) safe = safe && isShellSafe(c);
  if (safe) return std::string(text);
  std::string quoted = "'";
  for (const char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

}  // namespace harborkeeper
