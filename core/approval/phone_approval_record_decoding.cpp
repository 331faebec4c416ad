#include <utility>

#include "core/approval/internal/phone_approval_date_coding.h"
#include "core/approval/phone_approval_records.h"
#include "core/foundation/uuid.h"

namespace harborkeeper {

namespace {

using json::Json;
using Kind = PhoneApprovalDecodingError::Kind;

// An unknown value is quoted to help with a newer service, but only so much
// of it: it comes from outside.
constexpr std::size_t kQuotedValueLimit = 32;

// Reads the members of one JSON object. For an element of a list, the
// prefixes place a failing key inside it ("devices[1]." in the key,
// "\"devices\" item 2: " in the message).
class Fields {
 public:
  Fields(const Json& object, std::string keyPrefix, std::string messagePrefix)
      : object_(object), keyPrefix_(std::move(keyPrefix)), messagePrefix_(std::move(messagePrefix)) {}

  [[noreturn]] void fail(Kind kind, std::string_view key, std::string_view problem) const {
    std::string message = messagePrefix_ + "\"";
    message.append(key).append("\"").append(problem);
    throw PhoneApprovalDecodingError(kind, keyPrefix_ + std::string(key), message);
  }

  // Null counts as missing, as the service may write either.
  const Json& required(std::string_view key) const {
    const Json* value = optional(key);
    if (value == nullptr) fail(Kind::missingKey, key, " is missing.");
    return *value;
  }

  const Json* optional(std::string_view key) const {
    const auto found = object_.find(key);
    return found == object_.end() || found->is_null() ? nullptr : &*found;
  }

  std::string text(std::string_view key) const { return textOf(required(key), key); }

  std::optional<std::string> optionalText(std::string_view key) const {
    const Json* value = optional(key);
    if (value == nullptr) return std::nullopt;
    return textOf(*value, key);
  }

  bool boolean(std::string_view key) const {
    const Json& value = required(key);
    if (!value.is_boolean()) fail(Kind::wrongType, key, " must be a boolean.");
    return value.get<bool>();
  }

  std::string uuid(std::string_view key) const {
    auto id = uuid::parse(text(key));
    if (!id) fail(Kind::wrongType, key, " must be a UUID.");
    return std::move(*id);
  }

  Date date(std::string_view key) const {
    const auto date = internal::parsePreciseDate(text(key));
    if (!date) fail(Kind::wrongType, key, " must be an Internet date-time.");
    return *date;
  }

  template <typename Enumeration>
  Enumeration enumeration(std::string_view key) const {
    const std::string raw = text(key);
    const auto value = fromRawValue<Enumeration>(raw);
    if (!value) {
      const bool cut = raw.size() > kQuotedValueLimit;
      std::string quoted = json::serialize(Json(raw.substr(0, kQuotedValueLimit)));
      if (cut) quoted.insert(quoted.size() - 1, "...");
      fail(Kind::unknownValue, key, ": unknown value " + quoted + ".");
    }
    return *value;
  }

  const Json& array(std::string_view key) const {
    const Json& value = required(key);
    if (!value.is_array()) fail(Kind::wrongType, key, " must be an array.");
    return value;
  }

 private:
  std::string textOf(const Json& value, std::string_view key) const {
    if (!value.is_string()) fail(Kind::wrongType, key, " must be a string.");
    return value.get<std::string>();
  }

  const Json& object_;
  std::string keyPrefix_;
  std::string messagePrefix_;
};

Fields topLevel(const Json& object) {
  if (!object.is_object()) {
    throw PhoneApprovalDecodingError(Kind::notAnObject, "", "The record is not a JSON object.");
  }
  return Fields(object, "", "");
}

template <typename Record>
struct Tag {};

PhoneApprovalRequest decode(Tag<PhoneApprovalRequest>, const Fields& fields) {
  return {fields.uuid("id"),          fields.uuid("profileID"),
          fields.text("macName"),     fields.text("localHostname"),
          fields.date("requestedAt"), fields.date("expiresAt")};
}

PhoneApprovalMiddlewareRecord decode(Tag<PhoneApprovalMiddlewareRecord>, const Fields& fields) {
  return {fields.text("requestId"),     fields.text("listenerId"),
          fields.text("profileId"),     fields.text("macName"),
          fields.text("localHostname"), fields.text("createdAt"),
          fields.text("expiresAt"),     fields.enumeration<PhoneApprovalMiddlewareStatus>("status")};
}

PhoneApprovalDevicePublicKeyJWK decode(Tag<PhoneApprovalDevicePublicKeyJWK>, const Fields& fields) {
  return {fields.text("kty"), fields.text("crv"), fields.text("x"), fields.text("y")};
}

PhoneApprovalPairedDeviceRecord decode(Tag<PhoneApprovalPairedDeviceRecord>, const Fields& fields) {
  return {fields.text("deviceId"), fields.text("listenerId"), fields.text("displayName"),
          fields.text("registeredAt"), fields.optionalText("expiresAt")};
}

PhoneApprovalPairedDeviceListRecord decode(Tag<PhoneApprovalPairedDeviceListRecord>, const Fields& fields) {
  PhoneApprovalPairedDeviceListRecord list;
  const Json& devices = fields.array("devices");
  for (const Json& device : devices) {
    const std::size_t index = list.devices.size();
    const std::string position = " item " + std::to_string(index + 1);
    if (!device.is_object()) fields.fail(Kind::wrongType, "devices", position + " must be an object.");
    const Fields element(device, "devices[" + std::to_string(index) + "].", "\"devices\"" + position + ": ");
    list.devices.push_back(decode(Tag<PhoneApprovalPairedDeviceRecord>{}, element));
  }
  return list;
}

PhoneApprovalPairedDeviceRevocationRecord decode(Tag<PhoneApprovalPairedDeviceRevocationRecord>,
                                                 const Fields& fields) {
  return {fields.text("deviceId"), fields.boolean("revoked")};
}

PhoneApprovalTestNotificationRecord decode(Tag<PhoneApprovalTestNotificationRecord>, const Fields& fields) {
  return {fields.text("testId"), fields.text("listenerId"), fields.boolean("queued"),
          fields.text("createdAt")};
}

PhoneApprovalListenerRegistrationRecord decode(Tag<PhoneApprovalListenerRegistrationRecord>,
                                               const Fields& fields) {
  return {fields.text("listenerId"), fields.text("listenerSecret"), fields.text("registeredAt"),
          fields.boolean("secretShownOnce")};
}

PhoneApprovalPairingTokenRecord decode(Tag<PhoneApprovalPairingTokenRecord>, const Fields& fields) {
  return {fields.text("listenerId"), fields.text("pairingToken"), fields.text("displayName"),
          fields.text("expiresAt"), fields.boolean("secretShownOnce")};
}

}  // namespace

template <typename Record>
Record decodePhoneApproval(const json::Json& object) {
  return decode(Tag<Record>{}, topLevel(object));
}

template <typename Record>
Record decodePhoneApprovalResponse(std::string_view body) {
  if (body.size() > kPhoneApprovalMaxResponseBytes) {
    throw PhoneApprovalDecodingError(Kind::tooLarge, "", "The response is larger than 1 MiB.");
  }
  Json object;
  try {
    object = json::parse(body);
  } catch (const json::DecodeError&) {
    throw PhoneApprovalDecodingError(Kind::notJSON, "", "The response is not JSON.");
  }
  return decodePhoneApproval<Record>(object);
}

#define HARBORKEEPER_PHONE_APPROVAL_DECODER(Record)               \
  template Record decodePhoneApproval<Record>(const json::Json&); \
  template Record decodePhoneApprovalResponse<Record>(std::string_view);

HARBORKEEPER_PHONE_APPROVAL_DECODER(PhoneApprovalRequest)
HARBORKEEPER_PHONE_APPROVAL_DECODER(PhoneApprovalMiddlewareRecord)
HARBORKEEPER_PHONE_APPROVAL_DECODER(PhoneApprovalDevicePublicKeyJWK)
HARBORKEEPER_PHONE_APPROVAL_DECODER(PhoneApprovalPairedDeviceRecord)
HARBORKEEPER_PHONE_APPROVAL_DECODER(PhoneApprovalPairedDeviceListRecord)
HARBORKEEPER_PHONE_APPROVAL_DECODER(PhoneApprovalPairedDeviceRevocationRecord)
HARBORKEEPER_PHONE_APPROVAL_DECODER(PhoneApprovalTestNotificationRecord)
HARBORKEEPER_PHONE_APPROVAL_DECODER(PhoneApprovalListenerRegistrationRecord)
HARBORKEEPER_PHONE_APPROVAL_DECODER(PhoneApprovalPairingTokenRecord)
#undef HARBORKEEPER_PHONE_APPROVAL_DECODER

}  // namespace harborkeeper
