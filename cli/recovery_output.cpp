#include "cli/recovery_output.h"

#include "cli/cli_context.h"
#include "core/foundation/json.h"

namespace harborkeeper::cli {

namespace {

using json::Json;

constexpr std::string_view kNoProfilesNotice = "No profiles.";

std::string prettyJson(const Json& value) { return json::serializePretty(value) + '\n'; }

std::string stateLine(const CompanionRecoveryCheckResult& result) {
  return std::string(rawValue(result.state)) + ": " + result.message + '\n';
}

std::string dateOr(const std::optional<Date>& date, std::string_view fallback) {
  return date ? date_time::formatInternetDateTime(*date) : std::string(fallback);
}

// Continuation lines of a multi-line value are indented under their label.
void addLine(std::string& lines, std::string_view label, std::string_view value) {
  lines.append(label).append(value.empty() ? ":" : ": ");
  for (const char c : value) {
    lines += c;
    if (c == '\n') lines += "  ";
  }
  lines += '\n';
}

std::string joined(const std::vector<std::string>& values, std::string_view fallback) {
  if (values.empty()) return std::string(fallback);
  std::string text = values.front();
  for (std::size_t i = 1; i < values.size(); ++i) text.append(", ").append(values[i]);
  return text;
}

std::string wakeOnLANSummary(const RecoveryProfile& profile) {
  if (profile.wakeOnLANMACAddress.empty()) return "Not set";
  std::string summary = profile.wakeOnLANMACAddress + " (";
  if (!profile.wakeOnLANBroadcastAddress.empty()) {
    summary += "broadcast " + profile.wakeOnLANBroadcastAddress + ", ";
  }
  return summary + "port " + std::to_string(profile.wakeOnLANPort) + ")";
}

std::string showLines(const RecoveryProfile& p) {
  std::string lines;
  addLine(lines, "Name", p.macName);
  addLine(lines, "ID", p.id);
  addLine(lines, "Local hostname", p.localHostname);
  addLine(lines, "VPN hostname", p.vpnHostnameSummary());
  addLine(lines, "Recent local IPs", p.recentLocalIPSummary());
  addLine(lines, "SSH port", std::to_string(p.sshPort));
  addLine(lines, "Connection", hostAndPort(p.connectionHost(), p.sshPort));
  addLine(lines, "Recovery hosts", joined(p.recoveryHostCandidates(), "None"));
  addLine(lines, "FileVault user", p.unlockUsername());
  addLine(lines, "Normal SSH user", p.normalUsername());
  addLine(lines, "Host key", p.hostKeyFingerprint.empty() ? "Not captured" : p.hostKeyFingerprint);
  addLine(lines, "Host key trust",
          std::string(title(p.hostKeyTrustPolicy)) + " - " + std::string(summary(p.hostKeyTrustPolicy)));
  addLine(lines, "Credential",
          std::string(title(p.credentialPolicy)) + " - " + std::string(securitySummary(p.credentialPolicy)));
  addLine(
      lines, "Listener approval",
      std::string(title(p.listenerApprovalPolicy)) + " - " + std::string(detail(p.listenerApprovalPolicy)));
  addLine(lines, "Wake-on-LAN", wakeOnLANSummary(p));
  addLine(lines, "Last reached", dateOr(p.lastSuccessfulReachability, "Never"));
  addLine(lines, "Paired", dateOr(p.pairedAt, "Not paired"));
  if (p.lastPairingSessionIdentifier) addLine(lines, "Pairing session", *p.lastPairingSessionIdentifier);
  if (p.credentialItemIdentifier) addLine(lines, "Credential item", *p.credentialItemIdentifier);
  addLine(lines, "Notes", p.notes);
  return lines;
}

std::string listLine(const RecoveryProfile& p) {
  std::string line = p.macName;
  line.append("\t").append(hostAndPort(p.connectionHost(), p.sshPort));
  line.append("\t").append(p.unlockUsername());
  line.append("\t").append(title(p.hostKeyTrustPolicy));
  line.append(p.hostKeyFingerprint.empty() ? "\tidentity not captured\n" : "\tidentity captured\n");
  return line;
}

Json checkJson(const CompanionRecoveryCheckResult& result) {
  Json object = {{"state", rawValue(result.state)},
                 {"message", result.message},
                 {"isAmbiguousRecoveryCandidate", result.isAmbiguousRecoveryCandidate},
                 {"isReachable", result.isReachable()},
                 {"requiresHostKeyConfirmation", result.requiresHostKeyConfirmation()}};
  if (result.hostKeyFingerprint) object["hostKeyFingerprint"] = *result.hostKeyFingerprint;
  return object;
}

}  // namespace

std::string hostAndPort(std::string_view host, std::int64_t port) {
  const bool bracket = host.find(':') != std::string_view::npos;
  std::string text = bracket ? "[" : "";
  text.append(host).append(bracket ? "]:" : ":").append(std::to_string(port));
  return text;
}

Report profileListReport(const std::vector<RecoveryProfile>& profiles, bool json) {
  if (json) {
    Json array = Json::array();
    for (const RecoveryProfile& profile : profiles) array.push_back(encodeRecoveryProfile(profile));
    return {prettyJson(array), {}, ExitStatus::success};
  }
  if (profiles.empty()) return {{}, std::string(kNoProfilesNotice), ExitStatus::success};
  std::string lines;
  for (const RecoveryProfile& profile : profiles) lines += listLine(profile);
  return {std::move(lines), {}, ExitStatus::success};
}

Report profileShowReport(const RecoveryProfile& profile, bool json) {
  return {json ? prettyJson(encodeRecoveryProfile(profile)) : showLines(profile), {}, ExitStatus::success};
}

std::string trustCommand(std::string_view profileName, std::string_view profilesFile) {
  std::string command(programName);
  if (!profilesFile.empty()) command += " --profiles " + SSHUnlockCommandBuilder::shellEscaped(profilesFile);
  return command + " profile trust " + SSHUnlockCommandBuilder::shellEscaped(profileName);
}

Report recoveryCheckReport(const CompanionRecoveryCheckResult& result, std::string_view trustCommand,
                           bool json) {
  Report report;
  report.status =
      result.state == CompanionUnlockState::needsAttention ? ExitStatus::failure : ExitStatus::success;
  if (json) {
    report.output = prettyJson(checkJson(result));
    return report;
  }
  report.output = stateLine(result);
  if (result.requiresHostKeyConfirmation()) {
    report.output += "Host key: " + *result.hostKeyFingerprint + '\n';
    report.output.append("If this is the machine you expect, trust it with: ").append(trustCommand) += '\n';
  }
  return report;
}

Report recoveryUnlockReport(const CompanionRecoveryCheckResult& result) {
  using enum CompanionUnlockState;
  const bool back = result.state == online || result.state == unlocked || result.state == booting;
  return {stateLine(result), {}, back ? ExitStatus::success : ExitStatus::failure};
}

std::string progressLine(RecoveryStep step, int attempt) {
  switch (step) {
    case RecoveryStep::probing:
      return "Probing...";
    case RecoveryStep::unlocking:
      return "Unlocking...";
    case RecoveryStep::waitingForMac:
      break;
  }
  return "Waiting for the machine " + std::to_string(attempt) + "/3...";
}

Report reachReport(const CompanionReachabilityResult& result) {
  return {result.message + '\n', {}, result.isReachable ? ExitStatus::success : ExitStatus::failure};
}

Report hostKeyReport(const CompanionHostKeyCaptureResult& result) {
  if (result.fingerprint) return {*result.fingerprint + '\n', {}, ExitStatus::success};
  return {{}, result.message, ExitStatus::failure};
}

std::string hostKeyOffer(std::string_view host, std::int64_t port, std::string_view fingerprint,
                         std::string_view saved) {
  std::string text = "Host key of " + hostAndPort(host, port) + " is ";
  text.append(fingerprint) += '\n';
  if (!saved.empty() && saved != fingerprint) text.append("Saved host key: ").append(saved) += '\n';
  return text;
}

}  // namespace harborkeeper::cli
