#include <array>
#include <cstddef>

#include "core/foundation/uuid.h"
#include "core/recovery/recovery_profile.h"

namespace harborkeeper {

namespace {

using json::Json;

constexpr std::array<std::string_view, 20> kCodingKeys{
    "id",
    "macName",
    "localHostname",
    "sshPort",
    "hostKeyFingerprint",
    "hostKeyTrustPolicy",
    "lastKnownLocalIPs",
    "lastSuccessfulReachability",
    "fileVaultUsername",
    "credentialPolicy",
    "listenerApprovalPolicy",
    "notes",
    "vpnHostname",
    "normalSSHUsername",
    "credentialItemIdentifier",
    "pairedAt",
    "lastPairingSessionIdentifier",
    "wakeOnLANMACAddress",
    "wakeOnLANBroadcastAddress",
    "wakeOnLANPort",
};

// The message quotes the key and never the value, which may be anything a
// hand-edited file holds.
[[noreturn]] void fail(std::string_view key, std::string_view problem) {
  std::string message = "\"";
  message.append(key).append("\" ").append(problem);
  throw RecoveryProfileDecodeError(std::string(key), message);
}

// Null when absent or null.
const Json* member(const Json& object, std::string_view key) {
  const auto found = object.find(key);
  return found == object.end() || found->is_null() ? nullptr : &*found;
}

const Json& required(const Json& object, std::string_view key) {
  const auto found = object.find(key);
  if (found == object.end()) fail(key, "is missing.");
  return *found;
}

std::string textOf(const Json& value, std::string_view key) {
  if (!value.is_string()) fail(key, "must be a string.");
  return value.get<std::string>();
}

std::string requiredText(const Json& object, std::string_view key) {
  return textOf(required(object, key), key);
}

std::string textOr(const Json& object, std::string_view key, std::string fallback) {
  const Json* value = member(object, key);
  return value == nullptr ? std::move(fallback) : textOf(*value, key);
}

std::optional<std::string> optionalText(const Json& object, std::string_view key) {
  const Json* value = member(object, key);
  if (value == nullptr) return std::nullopt;
  return textOf(*value, key);
}

// Whole numbers only, also when written with a zero fraction ("22.0"), as the
// other JSON records read them.
std::int64_t integerOf(const Json& value, std::string_view key) {
  if (!value.is_number()) fail(key, "must be an integer.");
  try {
    return json::requireInteger(Json::object({{"value", value}}), "value");
  } catch (const json::DecodeError&) {
    fail(key, "must be an integer.");
  }
}

std::int64_t integerOr(const Json& object, std::string_view key, std::int64_t fallback) {
  const Json* value = member(object, key);
  return value == nullptr ? fallback : integerOf(*value, key);
}

template <typename Enumeration>
Enumeration enumerationOf(const Json& value, std::string_view key) {
  const auto decoded = fromRawValue<Enumeration>(textOf(value, key));
  if (!decoded) fail(key, "has an unknown value.");
  return *decoded;
}

template <typename Enumeration>
Enumeration enumerationOr(const Json& object, std::string_view key, Enumeration fallback) {
  const Json* value = member(object, key);
  return value == nullptr ? fallback : enumerationOf<Enumeration>(*value, key);
}

std::optional<Date> optionalDate(const Json& object, std::string_view key) {
  const Json* value = member(object, key);
  if (value == nullptr) return std::nullopt;
  const auto date = date_time::parseInternetDateTime(textOf(*value, key));
  if (!date) fail(key, "is not an ISO 8601 date.");
  return date;
}

std::vector<std::string> textList(const Json& object, std::string_view key) {
  const Json& value = required(object, key);
  if (!value.is_array()) fail(key, "must be an array of strings.");
  std::vector<std::string> list;
  list.reserve(value.size());
  for (const Json& element : value) {
    if (!element.is_string()) fail(key, "item " + std::to_string(list.size() + 1) + " must be a string.");
    list.push_back(element.get<std::string>());
  }
  return list;
}

std::string uuidOf(const Json& object, std::string_view key) {
  auto id = uuid::parse(requiredText(object, key));
  if (!id) fail(key, "is not a UUID.");
  return std::move(*id);
}

void putOptional(Json& object, std::string_view key, const std::optional<std::string>& value) {
  if (value) object[std::string(key)] = *value;
}

void putOptional(Json& object, std::string_view key, const std::optional<Date>& value) {
  if (value) object[std::string(key)] = date_time::formatInternetDateTime(*value);
}

}  // namespace

std::span<const std::string_view> recoveryProfileCodingKeys() { return kCodingKeys; }

json::Json encodeRecoveryProfile(const RecoveryProfile& profile) {
  Json object = {
      {"id", profile.id},
      {"macName", profile.macName},
      {"localHostname", profile.localHostname},
      {"sshPort", profile.sshPort},
      {"hostKeyFingerprint", profile.hostKeyFingerprint},
      {"hostKeyTrustPolicy", rawValue(profile.hostKeyTrustPolicy)},
      {"lastKnownLocalIPs", profile.lastKnownLocalIPs},
      {"fileVaultUsername", profile.fileVaultUsername},
      {"credentialPolicy", rawValue(profile.credentialPolicy)},
      {"listenerApprovalPolicy", rawValue(profile.listenerApprovalPolicy)},
      {"notes", profile.notes},
      {"vpnHostname", profile.vpnHostname},
      {"normalSSHUsername", profile.normalSSHUsername},
      {"wakeOnLANMACAddress", profile.wakeOnLANMACAddress},
      {"wakeOnLANBroadcastAddress", profile.wakeOnLANBroadcastAddress},
      {"wakeOnLANPort", profile.wakeOnLANPort},
  };
  putOptional(object, "lastSuccessfulReachability", profile.lastSuccessfulReachability);
  putOptional(object, "credentialItemIdentifier", profile.credentialItemIdentifier);
  putOptional(object, "pairedAt", profile.pairedAt);
  putOptional(object, "lastPairingSessionIdentifier", profile.lastPairingSessionIdentifier);
  return object;
}

RecoveryProfile decodeRecoveryProfile(const json::Json& object) {
  if (!object.is_object()) throw RecoveryProfileDecodeError("", "The profile is not a JSON object.");
  RecoveryProfile profile;
  profile.id = uuidOf(object, "id");
  profile.macName = requiredText(object, "macName");
  profile.localHostname = requiredText(object, "localHostname");
  profile.sshPort = integerOf(required(object, "sshPort"), "sshPort");
  profile.hostKeyFingerprint = requiredText(object, "hostKeyFingerprint");
  profile.hostKeyTrustPolicy = enumerationOr(object, "hostKeyTrustPolicy", profile.hostKeyTrustPolicy);
  profile.lastKnownLocalIPs = textList(object, "lastKnownLocalIPs");
  profile.lastSuccessfulReachability = optionalDate(object, "lastSuccessfulReachability");
  profile.fileVaultUsername = requiredText(object, "fileVaultUsername");
  profile.credentialPolicy =
      enumerationOf<RecoveryCredentialPolicy>(required(object, "credentialPolicy"), "credentialPolicy");
  profile.listenerApprovalPolicy =
      enumerationOr(object, "listenerApprovalPolicy", profile.listenerApprovalPolicy);
  profile.notes = requiredText(object, "notes");
  profile.vpnHostname = requiredText(object, "vpnHostname");
  profile.normalSSHUsername = requiredText(object, "normalSSHUsername");
  profile.credentialItemIdentifier = optionalText(object, "credentialItemIdentifier");
  profile.pairedAt = optionalDate(object, "pairedAt");
  profile.lastPairingSessionIdentifier = optionalText(object, "lastPairingSessionIdentifier");
  profile.wakeOnLANMACAddress = textOr(object, "wakeOnLANMACAddress", "");
  profile.wakeOnLANBroadcastAddress = textOr(object, "wakeOnLANBroadcastAddress", "");
  profile.wakeOnLANPort = integerOr(object, "wakeOnLANPort", profile.wakeOnLANPort);
  return profile;
}

}  // namespace harborkeeper
