#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "core/foundation/date_time.h"
#include "core/foundation/json.h"
#include "core/recovery/recovery_profile.h"

// The JSON records exchanged with the phone approval middleware, and the
// system's own record of one request for approval. Service timestamps stay
// the text the service wrote; nothing here parses them.
namespace harborkeeper {

enum class PhoneApprovalMiddlewareStatus { pending, approved, denied, consumed, expired };
enum class PhoneApprovalDeviceDecision { approved, denied };

// "pending", ..., "expired"; "approved", "denied".
std::string_view rawValue(PhoneApprovalMiddlewareStatus value);
std::string_view rawValue(PhoneApprovalDeviceDecision value);
// Every case in declaration order, and the case with an exact raw value
// (templates declared in recovery_profile.h).
template <>
std::span<const PhoneApprovalMiddlewareStatus> allCases();
template <>
std::span<const PhoneApprovalDeviceDecision> allCases();
template <>
std::optional<PhoneApprovalMiddlewareStatus> fromRawValue(std::string_view raw);
template <>
std::optional<PhoneApprovalDeviceDecision> fromRawValue(std::string_view raw);

// One request for approval as the system remembers it.
// JSON: "id", "profileID", "macName", "localHostname", "requestedAt",
// "expiresAt"; dates as "2026-11-15T16:20:00Z" with the sub-second part, when
// there is one, as up to nine fraction digits ("...:00.25Z"), so a stored
// request reads back exactly.
struct PhoneApprovalRequest {
  std::string id;         // UUID text, upper case
  std::string profileID;  // the profile's id as stored
  std::string macName;
  std::string localHostname;
  Date requestedAt;
  Date expiresAt;

  // A new random id; the profile's id, Mac name and local host name as they
  // are; expiresAt = requestedAt + timeToLive.
  static PhoneApprovalRequest make(const RecoveryProfile& profile, Date requestedAt,
                                   std::chrono::seconds timeToLive);
  bool operator==(const PhoneApprovalRequest&) const = default;
};

// An approval request as the service holds it.
struct PhoneApprovalMiddlewareRecord {
  std::string requestId;
  std::string listenerId;
  std::string profileId;
  std::string macName;
  std::string localHostname;
  std::string createdAt;
  std::string expiresAt;
  PhoneApprovalMiddlewareStatus status = PhoneApprovalMiddlewareStatus::pending;
  bool operator==(const PhoneApprovalMiddlewareRecord&) const = default;
};

// A device's P-256 public key; x and y are base64url of the 32-byte
// big-endian coordinates.
struct PhoneApprovalDevicePublicKeyJWK {
  std::string kty = "EC";
  std::string crv = "P-256";
  std::string x;
  std::string y;
  bool operator==(const PhoneApprovalDevicePublicKeyJWK&) const = default;
};

struct PhoneApprovalPairedDeviceRecord {
  std::string deviceId;
  std::string listenerId;
  std::string displayName;
  std::string registeredAt;
  std::optional<std::string> expiresAt;  // absent: the pairing does not expire
  bool operator==(const PhoneApprovalPairedDeviceRecord&) const = default;
};

struct PhoneApprovalPairedDeviceListRecord {
  std::vector<PhoneApprovalPairedDeviceRecord> devices;
  bool operator==(const PhoneApprovalPairedDeviceListRecord&) const = default;
};

struct PhoneApprovalPairedDeviceRevocationRecord {
  std::string deviceId;
  bool revoked = false;
  bool operator==(const PhoneApprovalPairedDeviceRevocationRecord&) const = default;
};

struct PhoneApprovalTestNotificationRecord {
  std::string testId;
  std::string listenerId;
  bool queued = false;
  std::string createdAt;
  bool operator==(const PhoneApprovalTestNotificationRecord&) const = default;
};

// Holds the listener's shared secret: wipe it once stored.
struct PhoneApprovalListenerRegistrationRecord {
  std::string listenerId;
  std::string listenerSecret;
  std::string registeredAt;
  bool secretShownOnce = false;
  bool operator==(const PhoneApprovalListenerRegistrationRecord&) const = default;
};

struct PhoneApprovalPairingTokenRecord {
  std::string listenerId;
  std::string pairingToken;
  std::string displayName;
  std::string expiresAt;
  bool secretShownOnce = false;
  bool operator==(const PhoneApprovalPairingTokenRecord&) const = default;
};

// Request bodies: sent only, every key always present.
struct RegisterListenerBody {
  std::string displayName;
};
struct UpdatePairedDeviceBody {
  std::string displayName;
};
struct CreatePhonePairingTokenBody {
  std::string displayName;
  std::int64_t expiresInSeconds = 0;
};
struct RegisterPairedDeviceBody {
  std::string displayName;
  std::string apnsToken;
  PhoneApprovalDevicePublicKeyJWK devicePublicKeyJwk;  // "devicePublicKeyJwk"
};
struct CreateApprovalRequestBody {
  std::string profileId;
  std::string macName;
  std::string localHostname;
  std::int64_t expiresInSeconds = 0;
};

// A record that does not decode. what() names the key (with the position
// for an element of "devices") and what is wrong, e.g.
//   "status": unknown value "cancelled".
//   "registeredAt" is missing.
//   "secretShownOnce" must be a boolean.
// Only an unknown enumeration value is quoted (shortened); no other value,
// since records carry secrets.
class PhoneApprovalDecodingError : public std::runtime_error {
 public:
  enum class Kind { tooLarge, notJSON, notAnObject, missingKey, wrongType, unknownValue };
  PhoneApprovalDecodingError(Kind kind, std::string key, const std::string& message)
      : std::runtime_error(message), kind_(kind), key_(std::move(key)) {}
  [[nodiscard]] Kind kind() const { return kind_; }
  // The offending key ("devices[1].registeredAt" inside the list); empty for
  // tooLarge, notJSON and a top level that is not an object.
  [[nodiscard]] const std::string& key() const { return key_; }

 private:
  Kind kind_;
  std::string key_;
};

// Larger response bodies are refused before parsing.
inline constexpr std::size_t kPhoneApprovalMaxResponseBytes = std::size_t{1024} * 1024;

// Encoding: every key of the record (absent optionals left out). Keys come
// out sorted when serialized (json::serialize).
json::Json encodePhoneApproval(const PhoneApprovalRequest& value);
json::Json encodePhoneApproval(const PhoneApprovalMiddlewareRecord& value);
json::Json encodePhoneApproval(const PhoneApprovalDevicePublicKeyJWK& value);
json::Json encodePhoneApproval(const PhoneApprovalPairedDeviceRecord& value);
json::Json encodePhoneApproval(const PhoneApprovalPairedDeviceListRecord& value);
json::Json encodePhoneApproval(const PhoneApprovalPairedDeviceRevocationRecord& value);
json::Json encodePhoneApproval(const PhoneApprovalTestNotificationRecord& value);
json::Json encodePhoneApproval(const PhoneApprovalListenerRegistrationRecord& value);
json::Json encodePhoneApproval(const PhoneApprovalPairingTokenRecord& value);
json::Json encodePhoneApproval(const RegisterListenerBody& value);
json::Json encodePhoneApproval(const UpdatePairedDeviceBody& value);
json::Json encodePhoneApproval(const CreatePhonePairingTokenBody& value);
json::Json encodePhoneApproval(const RegisterPairedDeviceBody& value);
json::Json encodePhoneApproval(const CreateApprovalRequestBody& value);

// The body bytes as sent: compact JSON, keys sorted, "/" unescaped.
template <typename Body>
std::string serializePhoneApprovalBody(const Body& body) {
  return json::serialize(encodePhoneApproval(body));
}

// Decoding of every record type above (not the bodies). Required keys must be
// present with exactly their JSON type (no text for a boolean, no fraction
// for an integer); null counts as missing; unknown keys are ignored. Throws
// PhoneApprovalDecodingError.
template <typename Record>
Record decodePhoneApproval(const json::Json& object);

// Decodes a response body: more than kPhoneApprovalMaxResponseBytes is
// tooLarge, anything but JSON (an empty body too) is notJSON. Never throws
// anything but PhoneApprovalDecodingError (or std::bad_alloc).
template <typename Record>
Record decodePhoneApprovalResponse(std::string_view body);

}  // namespace harborkeeper
