// Learning a companion's SSH host key and choosing the one host that ssh may
// be pointed at.
#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/foundation/text.h"
#include "core/recovery/companion_recovery_service.h"

namespace harborkeeper {

namespace {

using State = CompanionUnlockState;

constexpr double kKeyscanTimeout = 7;
constexpr double kKeygenTimeout = 5;
constexpr std::string_view kUnverifiedMessage = "Could not verify the SSH host key.";

bool isValidPort(std::int64_t port) { return port >= 1 && port <= 65535; }

// A leading "-" would be read as an option by every ssh tool.
bool looksLikeOption(std::string_view value) { return text::startsWith(value, "-"); }

HostKeyMaterialCaptureResult captureFailure(std::string message) {
  return {std::nullopt, "", std::move(message)};
}

CompanionRecoveryCheckResult failure(State state, std::string_view message,
                                     std::optional<std::string> fingerprint = std::nullopt) {
  return {state, std::string(message), std::move(fingerprint), false};
}

std::optional<CompanionRecoveryCheckResult> invalidProfile(const RecoveryProfile& profile, bool hasHosts) {
  if (!hasHosts) return failure(State::offline, "Missing hostname.");
  if (!isValidPort(profile.sshPort)) return failure(State::offline, "Invalid SSH port.");
  for (const std::string& user : {text::trimmed(profile.fileVaultUsername), profile.normalUsername()}) {
    if (user.empty() || looksLikeOption(user)) return failure(State::needsAttention, "Invalid SSH username.");
  }
  return std::nullopt;
}

VerifiedRecoveryTarget keyedTarget(const std::string& host, const HostKeyMaterialCaptureResult& captured) {
  return {host, captured.fingerprint, captured.knownHostsLine};
}

// What the walk over the candidates has seen so far; only the first of each
// kind counts, so the candidate order decides between equals.
class Resolution final {
 public:
  Resolution(std::string saved, bool bestEffort) : saved_(std::move(saved)), bestEffort_(bestEffort) {}

  void rememberInvalidHost() { rememberFailure("Invalid hostname."); }

  // A target when this host settles the question at once.
  std::optional<VerifiedRecoveryTarget> consider(const std::string& host,
                                                 const HostKeyMaterialCaptureResult& captured) {
    const bool keyed = captured.fingerprint.has_value();
    if (saved_.empty()) {
      if (keyed && bestEffort_) return keyedTarget(host, captured);
      if (keyed && !firstUse_) firstUse_ = captured.fingerprint;
      if (!keyed && !unverifiedFallback_) unverifiedFallback_ = host;
    } else if (keyed && *captured.fingerprint == saved_) {
      return keyedTarget(host, captured);
    } else if (keyed) {
      if (!changed_) changed_ = captured.fingerprint;
      if (bestEffort_ && !keyedFallback_) keyedFallback_ = keyedTarget(host, captured);
    } else if (!bestEffort_) {
      rememberFailure(kUnverifiedMessage);
    } else if (!unverifiedFallback_) {
      unverifiedFallback_ = host;
    }
    return std::nullopt;
  }

  [[nodiscard]] RecoveryTargetResolution conclude() const {
    using Service = CompanionRecoveryService;
    if (bestEffort_ && keyedFallback_) return *keyedFallback_;
    if (changed_) return failure(State::needsAttention, Service::hostKeyChangedMessage, changed_);
    if (bestEffort_ && unverifiedFallback_) return VerifiedRecoveryTarget{*unverifiedFallback_, {}, {}};
    if (firstUse_) {
      return failure(State::needsAttention, Service::hostKeyFirstUseConfirmationMessage, firstUse_);
    }
    if (unverifiedFallback_) {
      return failure(State::needsAttention, Service::hostKeyVerificationRequiredMessage);
    }
    return failure_.value_or(failure(State::needsAttention, kUnverifiedMessage));
  }

 private:
  void rememberFailure(std::string_view message) {
    if (!failure_) failure_ = failure(State::needsAttention, message);
  }

  std::string saved_;
  bool bestEffort_;
  std::optional<CompanionRecoveryCheckResult> failure_;
  std::optional<std::string> firstUse_;
  std::optional<std::string> changed_;
  std::optional<VerifiedRecoveryTarget> keyedFallback_;
  std::optional<std::string> unverifiedFallback_;
};

// The one set of rules for both capture orders; `capture` gives the key of
// the candidate at an index and is never asked about a host like an option.
RecoveryTargetResolution resolveOver(
    const RecoveryProfile& profile, const std::vector<std::string>& hosts,
    const std::function<HostKeyMaterialCaptureResult(std::size_t)>& capture) {
  Resolution resolution(
      text::trimmed(profile.hostKeyFingerprint),
      profile.hostKeyTrustPolicy == RecoveryHostKeyTrustPolicy::allowUnverifiedLocalNetwork);
  for (std::size_t index = 0; index < hosts.size(); ++index) {
    if (looksLikeOption(hosts[index])) {
      resolution.rememberInvalidHost();
    } else if (auto target = resolution.consider(hosts[index], capture(index))) {
      return *std::move(target);
    }
  }
  return resolution.conclude();
}

}  // namespace

HostKeyMaterialCaptureResult CompanionRecoveryService::captureHostKeyMaterial(std::string_view host,
                                                                              std::int64_t port) const {
  const std::string trimmedHost = text::trimmed(host);
  if (trimmedHost.empty()) return captureFailure("Missing hostname.");
  if (looksLikeOption(trimmedHost)) return captureFailure("Invalid hostname.");
  if (!isValidPort(port)) return captureFailure("Invalid SSH port.");

  const CommandResult scan =
      functions_.run(tools_.sshKeyscan, {"-p", std::to_string(port), "-T", "5", "-t", "ed25519", trimmedHost},
                     std::nullopt, kKeyscanTimeout);
  std::string keyText = text::trimmed(scan.standardOutput);
  if (keyText.empty()) keyText = scan.standardError;
  if (scan.timedOut) return captureFailure("SSH host key scan timed out.");
  if (scan.exitCode != 0 || keyText.empty()) return captureFailure("Could not read the SSH host key.");

  const CommandResult digest =
      functions_.run(tools_.sshKeygen, {"-E", "sha256", "-lf", "-"}, keyText, kKeygenTimeout);
  std::string described = text::trimmed(digest.standardOutput);
  if (described.empty()) described = digest.standardError;
  std::optional<std::string> fingerprint = parseSHA256Fingerprint(described);
  if (!fingerprint) return captureFailure("Could not parse the SSH host key.");
  return {std::move(fingerprint), std::move(keyText), "Captured SSH host key."};
}

CompanionHostKeyCaptureResult CompanionRecoveryService::captureHostKeyFingerprint(std::string_view host,
                                                                                  std::int64_t port) const {
  HostKeyMaterialCaptureResult material = captureHostKeyMaterial(host, port);
  return {std::move(material.fingerprint), std::move(material.message)};
}

std::optional<std::string> CompanionRecoveryService::parseSHA256Fingerprint(std::string_view text) {
  const auto length =
      static_cast<std::int32_t>(std::min<std::size_t>(text.size(), std::numeric_limits<std::int32_t>::max()));
  const char* bytes = text.data();
  std::int32_t pieceStart = 0;
  std::int32_t offset = 0;
  for (;;) {
    const std::int32_t pieceEnd = offset;
    const bool atEnd = offset == length;
    UChar32 c = -1;
    if (!atEnd) {
      U8_NEXT(bytes, offset, length, c);
    }
    // An invalid sequence (c < 0) belongs to a piece; it never separates two.
    if (!atEnd && (c < 0 || !u_isUWhiteSpace(c))) continue;
    const std::string_view piece = text.substr(pieceStart, pieceEnd - pieceStart);
    if (text::startsWith(piece, "SHA256:")) return std::string(piece);
    if (atEnd) return std::nullopt;
    pieceStart = offset;
  }
}

std::vector<std::string> CompanionRecoveryService::candidateHosts(const RecoveryProfile& profile) {
  return profile.recoveryHostCandidates();
}

RecoveryTargetResolution CompanionRecoveryService::resolveTarget(const RecoveryProfile& profile) const {
  const std::vector<std::string> hosts = candidateHosts(profile);
  if (auto invalid = invalidProfile(profile, !hosts.empty())) return *std::move(invalid);
  const auto scan = [&](std::size_t index) { return captureHostKeyMaterial(hosts[index], profile.sshPort); };
  if (order_ == HostKeyCaptureOrder::ordered) return resolveOver(profile, hosts, scan);

  // Every scan at once, so unreachable addresses cost one scan time in total.
  // Each future joins its thread when destroyed, also when a scan throws.
  std::vector<std::future<HostKeyMaterialCaptureResult>> pending(hosts.size());
  for (std::size_t index = 0; index < hosts.size(); ++index) {
    if (!looksLikeOption(hosts[index])) pending[index] = std::async(std::launch::async, scan, index);
  }
  std::vector<HostKeyMaterialCaptureResult> captured(hosts.size());
  for (std::size_t index = 0; index < hosts.size(); ++index) {
    if (pending[index].valid()) captured[index] = pending[index].get();
  }
  return resolveOver(profile, hosts, [&](std::size_t index) { return captured[index]; });
}

}  // namespace harborkeeper
