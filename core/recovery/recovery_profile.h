#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "core/foundation/date_time.h"
#include "core/foundation/json.h"

// What the system remembers about one companion machine it may have to
// recover over SSH, and the small enumerations that travel with it.
namespace harborkeeper {

enum class RecoveryCredentialPolicy { askEveryTime, requireDeviceAuthentication, oneClick };
enum class RecoveryHostKeyTrustPolicy { requireVerifiedHostKey, allowUnverifiedLocalNetwork };
enum class ListenerApprovalPolicy { requirePhoneApproval, allowTrustedListener };
enum class CompanionUnlockState {
  offline,
  sshReachable,
  locked,
  unlocking,
  unlocked,
  booting,
  online,
  awaitingApproval,
  needsAttention,
};

// Every case in declaration order.
template <typename Enumeration>
std::span<const Enumeration> allCases();

// The raw value each case is coded as ("askEveryTime", "sshReachable", ...).
std::string_view rawValue(RecoveryCredentialPolicy value);
std::string_view rawValue(RecoveryHostKeyTrustPolicy value);
std::string_view rawValue(ListenerApprovalPolicy value);
std::string_view rawValue(CompanionUnlockState value);

// The case with this raw value (exact comparison); nothing for an unknown one.
template <typename Enumeration>
std::optional<Enumeration> fromRawValue(std::string_view raw);

// Texts shown for the policies.
std::string_view title(RecoveryCredentialPolicy value);
std::string_view detail(RecoveryCredentialPolicy value);
std::string_view securitySummary(RecoveryCredentialPolicy value);
std::string_view securitySystemImage(RecoveryCredentialPolicy value);
std::string_view title(RecoveryHostKeyTrustPolicy value);
std::string_view summary(RecoveryHostKeyTrustPolicy value);
std::string_view title(ListenerApprovalPolicy value);
std::string_view detail(ListenerApprovalPolicy value);
bool requiresPhoneApproval(ListenerApprovalPolicy value);

struct RecoveryProfile {
  std::string id;  // UUID text, upper case
  std::string macName;
  std::string localHostname;
  std::int64_t sshPort = 22;
  std::string hostKeyFingerprint;  // "SHA256:..."; empty: not yet captured
  RecoveryHostKeyTrustPolicy hostKeyTrustPolicy = RecoveryHostKeyTrustPolicy::requireVerifiedHostKey;
  std::vector<std::string> lastKnownLocalIPs;  // most useful first
  std::optional<Date> lastSuccessfulReachability;
  std::string fileVaultUsername;
  RecoveryCredentialPolicy credentialPolicy = RecoveryCredentialPolicy::askEveryTime;
  ListenerApprovalPolicy listenerApprovalPolicy = ListenerApprovalPolicy::allowTrustedListener;
  std::string notes;
  std::string vpnHostname;        // empty: none
  std::string normalSSHUsername;  // empty: the FileVault account
  std::optional<std::string> credentialItemIdentifier;
  std::optional<Date> pairedAt;
  std::optional<std::string> lastPairingSessionIdentifier;
  std::string wakeOnLANMACAddress;
  std::string wakeOnLANBroadcastAddress;
  std::int64_t wakeOnLANPort = 9;

  bool operator==(const RecoveryProfile&) const = default;

  // vpnHostname, localHostname, then at most the first 8 lastKnownLocalIPs;
  // trimmed, empty ones and later duplicates dropped.
  [[nodiscard]] std::vector<std::string> recoveryHostCandidates() const;
  // The first candidate, or localHostname as stored when there is none.
  [[nodiscard]] std::string connectionHost() const;
  // lastKnownLocalIPs trimmed, deduplicated, joined with ", "; "None" when empty.
  [[nodiscard]] std::string recentLocalIPSummary() const;
  // vpnHostname trimmed, or "Not set".
  [[nodiscard]] std::string vpnHostnameSummary() const;
  [[nodiscard]] std::string unlockUsername() const;
  // normalSSHUsername trimmed, or the trimmed FileVault user when that is empty.
  [[nodiscard]] std::string normalUsername() const;
};

// A stored profile that does not decode. what() names the key (and, for an
// element of a list, its position) and what is wrong with it, never the value.
class RecoveryProfileDecodeError : public std::runtime_error {
 public:
  RecoveryProfileDecodeError(std::string key, const std::string& message)
      : std::runtime_error(message), key_(std::move(key)) {}
  [[nodiscard]] const std::string& key() const { return key_; }

 private:
  std::string key_;
};

// Every field by its name; absent optionals are left out; dates as ISO 8601
// text ("2026-11-15T16:20:00Z").
json::Json encodeRecoveryProfile(const RecoveryProfile& profile);
// Required keys must be present with their type; the keys with a default may
// be missing. Unknown keys are ignored. Throws RecoveryProfileDecodeError.
RecoveryProfile decodeRecoveryProfile(const json::Json& object);
// Every key the coding above reads or writes, in field order.
std::span<const std::string_view> recoveryProfileCodingKeys();

}  // namespace harborkeeper
