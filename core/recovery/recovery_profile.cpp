#include "core/recovery/recovery_profile.h"

#include <array>
#include <cstddef>

#include "core/foundation/text.h"
#include "core/foundation/uuid.h"

namespace harborkeeper {

namespace {

// Cases in declaration order beside their raw values; the enumerations count
// from zero, so a case's position is its value.
template <typename Enumeration>
struct CaseTable;

template <>
struct CaseTable<RecoveryCredentialPolicy> {
  using enum RecoveryCredentialPolicy;
  static constexpr std::array cases{askEveryTime, requireDeviceAuthentication, oneClick};
  static constexpr std::array<std::string_view, 3> raw{"askEveryTime", "requireDeviceAuthentication",
                                                       "oneClick"};
};

template <>
struct CaseTable<RecoveryHostKeyTrustPolicy> {
  using enum RecoveryHostKeyTrustPolicy;
  static constexpr std::array cases{requireVerifiedHostKey, allowUnverifiedLocalNetwork};
  static constexpr std::array<std::string_view, 2> raw{"requireVerifiedHostKey",
                                                       "allowUnverifiedLocalNetwork"};
};

template <>
struct CaseTable<ListenerApprovalPolicy> {
  using enum ListenerApprovalPolicy;
  static constexpr std::array cases{requirePhoneApproval, allowTrustedListener};
  static constexpr std::array<std::string_view, 2> raw{"requirePhoneApproval", "allowTrustedListener"};
};

template <>
struct CaseTable<CompanionUnlockState> {
  using enum CompanionUnlockState;
  static constexpr std::array cases{offline, sshReachable, locked,           unlocking,     unlocked,
                                    booting, online,       awaitingApproval, needsAttention};
  static constexpr std::array<std::string_view, 9> raw{"offline",   "sshReachable",     "locked",
                                                       "unlocking", "unlocked",         "booting",
                                                       "online",    "awaitingApproval", "needsAttention"};
};

template <typename Enumeration>
std::string_view rawValueOf(Enumeration value) {
  const auto index = static_cast<std::size_t>(value);
  return index < CaseTable<Enumeration>::raw.size() ? CaseTable<Enumeration>::raw[index] : std::string_view();
}

// Trimmed, empty ones and later duplicates dropped.
void appendDistinct(std::vector<std::string>& list, std::string_view value) {
  std::string entry = text::trimmed(value);
  if (entry.empty()) return;
  for (const std::string& existing : list) {
    if (existing == entry) return;
  }
  list.push_back(std::move(entry));
}

}  // namespace

template <typename Enumeration>
std::span<const Enumeration> allCases() {
  return CaseTable<Enumeration>::cases;
}

template <typename Enumeration>
std::optional<Enumeration> fromRawValue(std::string_view raw) {
  for (const Enumeration value : CaseTable<Enumeration>::cases) {
    if (rawValueOf(value) == raw) return value;
  }
  return std::nullopt;
}

template std::span<const RecoveryCredentialPolicy> allCases();
template std::span<const RecoveryHostKeyTrustPolicy> allCases();
template std::span<const ListenerApprovalPolicy> allCases();
template std::span<const CompanionUnlockState> allCases();
template std::optional<RecoveryCredentialPolicy> fromRawValue(std::string_view);
template std::optional<RecoveryHostKeyTrustPolicy> fromRawValue(std::string_view);
template std::optional<ListenerApprovalPolicy> fromRawValue(std::string_view);
template std::optional<CompanionUnlockState> fromRawValue(std::string_view);

std::string_view rawValue(RecoveryCredentialPolicy value) { return rawValueOf(value); }
std::string_view rawValue(RecoveryHostKeyTrustPolicy value) { return rawValueOf(value); }
std::string_view rawValue(ListenerApprovalPolicy value) { return rawValueOf(value); }
std::string_view rawValue(CompanionUnlockState value) { return rawValueOf(value); }

std::string_view title(RecoveryCredentialPolicy value) {
  switch (value) {
    case RecoveryCredentialPolicy::askEveryTime:
      return "Ask Every Time";
    case RecoveryCredentialPolicy::requireDeviceAuthentication:
      return "Require Device Authentication";
    case RecoveryCredentialPolicy::oneClick:
      return "Save for Automatic Unlock";
  }
  return {};
}

std::string_view detail(RecoveryCredentialPolicy value) {
  switch (value) {
    case RecoveryCredentialPolicy::askEveryTime:
      return "Save the Mac profile, then type the FileVault password during recovery.";
    case RecoveryCredentialPolicy::requireDeviceAuthentication:
      return "Save the password in Keychain and require device authentication before recovery.";
    case RecoveryCredentialPolicy::oneClick:
      return "Save the password in Keychain so Automatic Unlock can recover without another prompt on this "
             "device.";
  }
  return {};
}

std::string_view securitySummary(RecoveryCredentialPolicy value) {
  switch (value) {
    case RecoveryCredentialPolicy::askEveryTime:
      return "No password saved";
    case RecoveryCredentialPolicy::requireDeviceAuthentication:
      return "Password saved, device authentication required";
    case RecoveryCredentialPolicy::oneClick:
      return "Credential saved for Automatic Unlock";
  }
  return {};
}

std::string_view securitySystemImage(RecoveryCredentialPolicy value) {
  switch (value) {
    case RecoveryCredentialPolicy::askEveryTime:
      return "key";
    case RecoveryCredentialPolicy::requireDeviceAuthentication:
      return "checkmark.shield";
    case RecoveryCredentialPolicy::oneClick:
      return "lock.open";
  }
  return {};
}

std::string_view title(RecoveryHostKeyTrustPolicy value) {
  return value == RecoveryHostKeyTrustPolicy::allowUnverifiedLocalNetwork ? "Best effort"
                                                                          : "Verify SSH identity";
}

std::string_view summary(RecoveryHostKeyTrustPolicy value) {
  return value == RecoveryHostKeyTrustPolicy::allowUnverifiedLocalNetwork
             ? "Try recovery even when SSH identity cannot be verified. Use only on networks you trust."
             : "Only recover after this Mac's SSH identity is captured and still matches.";
}

std::string_view title(ListenerApprovalPolicy value) {
  return requiresPhoneApproval(value) ? "Require Phone Approval" : "Automatic Unlock";
}

std::string_view detail(ListenerApprovalPolicy value) {
  return requiresPhoneApproval(value)
             ? "A local unlocker can detect a locked Mac, but must ask an approved iPhone or iPad before "
               "unlocking."
             : "A trusted local unlocker may unlock this Mac automatically when it detects the FileVault SSH "
               "unlock prompt.";
}

bool requiresPhoneApproval(ListenerApprovalPolicy value) {
  return value == ListenerApprovalPolicy::requirePhoneApproval;
}

std::vector<std::string> RecoveryProfile::recoveryHostCandidates() const {
  constexpr std::size_t kMaximumAddresses = 8;
  std::vector<std::string> candidates;
  appendDistinct(candidates, vpnHostname);
  appendDistinct(candidates, localHostname);
  for (std::size_t i = 0; i < lastKnownLocalIPs.size() && i < kMaximumAddresses; ++i) {
    appendDistinct(candidates, lastKnownLocalIPs[i]);
  }
  return candidates;
}

std::string RecoveryProfile::connectionHost() const {
  std::vector<std::string> candidates = recoveryHostCandidates();
  if (candidates.empty()) return localHostname;
  return std::move(candidates.front());
}

std::string RecoveryProfile::recentLocalIPSummary() const {
  std::vector<std::string> addresses;
  for (const std::string& address : lastKnownLocalIPs) appendDistinct(addresses, address);
  if (addresses.empty()) return "None";
  std::string summary = addresses.front();
  for (std::size_t i = 1; i < addresses.size(); ++i) summary += ", " + addresses[i];
  return summary;
}

std::string RecoveryProfile::vpnHostnameSummary() const {
  std::string vpn = text::trimmed(vpnHostname);
  return vpn.empty() ? "Not set" : vpn;
}

std::string RecoveryProfile::unlockUsername() const { return text::trimmed(fileVaultUsername); }

std::string RecoveryProfile::normalUsername() const {
  std::string normal = text::trimmed(normalSSHUsername);
  return normal.empty() ? unlockUsername() : normal;
}

}  // namespace harborkeeper
