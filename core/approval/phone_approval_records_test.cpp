#include "core/approval/phone_approval_records.h"

#include <gtest/gtest.h>

#include "core/foundation/uuid.h"

namespace harborkeeper {
namespace {

using Kind = PhoneApprovalDecodingError::Kind;
using namespace std::chrono_literals;

constexpr std::string_view kMiddlewareRecord =
    R"({"requestId":"req_1","listenerId":"lst_1","profileId":"P","macName":"Mini","localHostname":"mini.local",)"
    R"("createdAt":"2026-11-15T16:20:00Z","expiresAt":"2026-11-15T16:25:00Z","status":"pending"})";

// Runs one decoder over a body; the error's text when it fails.
template <typename Record>
std::string decodingFailure(std::string_view body, Kind expected) {
  try {
    (void)decodePhoneApprovalResponse<Record>(body);
  } catch (const PhoneApprovalDecodingError& error) {
    EXPECT_EQ(error.kind(), expected);
    return error.what();
  }
  return "decoded";
}

std::string withStatus(std::string_view status) {
  std::string body(kMiddlewareRecord);
  body.replace(body.find("\"pending\""), 9, status);
  return body;
}

TEST(PhoneApprovalRecordsTest, MiddlewareRecordStatus) {
  const auto record = decodePhoneApprovalResponse<PhoneApprovalMiddlewareRecord>(withStatus("\"expired\""));
  EXPECT_EQ(record.status, PhoneApprovalMiddlewareStatus::expired);
  EXPECT_EQ(record.createdAt, "2026-11-15T16:20:00Z");  // kept as the service wrote it

  const struct {
    std::string status;
    Kind kind;
    std::string message;
  } failures[] = {
      {"\"cancelled\"", Kind::unknownValue, R"("status": unknown value "cancelled".)"},
      {"\"Pending\"", Kind::unknownValue, R"("status": unknown value "Pending".)"},
      {"\"" + std::string(40, 'x') + "\"", Kind::unknownValue,
       R"("status": unknown value ")" + std::string(32, 'x') + R"(...".)"},
      {"\"a\\\"b\\n\"", Kind::unknownValue, R"("status": unknown value "a\"b\n".)"},
      {"1", Kind::wrongType, R"("status" must be a string.)"},
      {"null", Kind::missingKey, R"("status" is missing.)"},
  };
  for (const auto& failure : failures) {
    SCOPED_TRACE(failure.status);
    EXPECT_EQ(decodingFailure<PhoneApprovalMiddlewareRecord>(withStatus(failure.status), failure.kind),
              failure.message);
  }
}

TEST(PhoneApprovalRecordsTest, StrictTypesAndRequiredKeys) {
  constexpr auto registration = decodingFailure<PhoneApprovalListenerRegistrationRecord>;
  constexpr auto deviceList = decodingFailure<PhoneApprovalPairedDeviceListRecord>;
  constexpr auto request = decodingFailure<PhoneApprovalRequest>;
  constexpr auto middleware = decodingFailure<PhoneApprovalMiddlewareRecord>;
  constexpr std::string_view kRequestHead =
      R"({"id":"e621e1f8-c36c-495a-93fc-0c247a3e6e5f","profileID":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F",)"
      R"("macName":"m","localHostname":"h",)";
  const struct {
    std::string body;
    std::string (*decode)(std::string_view, Kind);
    Kind kind;
    std::string_view message;
  } cases[] = {
      {R"({"listenerId":"l","listenerSecret":"s","registeredAt":"t","secretShownOnce":"true"})", registration,
       Kind::wrongType, R"("secretShownOnce" must be a boolean.)"},
      {R"({"listenerId":"l","listenerSecret":7,"registeredAt":"t","secretShownOnce":true})", registration,
       Kind::wrongType, R"("listenerSecret" must be a string.)"},
      {R"({"deviceId":"d","listenerId":"l","displayName":"Phone"})",
       decodingFailure<PhoneApprovalPairedDeviceRecord>, Kind::missingKey, R"("registeredAt" is missing.)"},
      {R"({"deviceId":"d","revoked":1})", decodingFailure<PhoneApprovalPairedDeviceRevocationRecord>,
       Kind::wrongType, R"("revoked" must be a boolean.)"},
      {R"({"testId":"t","listenerId":"l","queued":true})",
       decodingFailure<PhoneApprovalTestNotificationRecord>, Kind::missingKey, R"("createdAt" is missing.)"},
      {R"({"listenerId":"l","pairingToken":"p","displayName":"n","expiresAt":"e"})",
       decodingFailure<PhoneApprovalPairingTokenRecord>, Kind::missingKey,
       R"("secretShownOnce" is missing.)"},
      {R"({"devices":{}})", deviceList, Kind::wrongType, R"("devices" must be an array.)"},
      {R"({"devices":[{"deviceId":"d","listenerId":"l","displayName":"n","registeredAt":"r"},)"
       R"({"deviceId":"d","listenerId":"l","displayName":"n"}]})",
       deviceList, Kind::missingKey, R"("devices" item 2: "registeredAt" is missing.)"},
      {R"({"devices":["d"]})", deviceList, Kind::wrongType, R"("devices" item 1 must be an object.)"},
      {"[]", middleware, Kind::notAnObject, "The record is not a JSON object."},
      {"<html>502</html>", middleware, Kind::notJSON, "The response is not JSON."},
      {R"({"id":"nope","profileID":"x"})", request, Kind::wrongType, R"("id" must be a UUID.)"},
      {std::string(kRequestHead) + R"("requestedAt":"2025-11-15T16:20:00.1234567890Z"})", request,
       Kind::wrongType, R"("requestedAt" must be an Internet date-time.)"},
      {std::string(kRequestHead) +
           R"("requestedAt":"2025-11-15T16:20:00.5Z","expiresAt":"2025-11-15T16:20:00.Z"})",
       request, Kind::wrongType, R"("expiresAt" must be an Internet date-time.)"},
  };
  for (const auto& testCase : cases) {
    SCOPED_TRACE(testCase.body);
    EXPECT_EQ(testCase.decode(testCase.body, testCase.kind), testCase.message);
  }
}

TEST(PhoneApprovalRecordsTest, OptionalExpiryAndSecretsNeverQuoted) {
  const auto device = decodePhoneApprovalResponse<PhoneApprovalPairedDeviceRecord>(
      R"({"deviceId":"d","listenerId":"l","displayName":"n","registeredAt":"r","extra":1})");
  EXPECT_EQ(device.expiresAt, std::nullopt);
  EXPECT_EQ(json::serialize(encodePhoneApproval(device)),
            R"({"deviceId":"d","displayName":"n","listenerId":"l","registeredAt":"r"})");

  const std::string message = decodingFailure<PhoneApprovalListenerRegistrationRecord>(
      R"({"listenerId":"l","listenerSecret":"TOPSECRET","registeredAt":"t","secretShownOnce":"TOPSECRET"})",
      Kind::wrongType);
  EXPECT_EQ(message.find("TOPSECRET"), std::string::npos) << message;
}

TEST(PhoneApprovalRecordsTest, ResponseSizeLimit) {
  // A valid record padded with white space up to exactly the limit decodes.
  std::string body(kMiddlewareRecord);
  body.append(kPhoneApprovalMaxResponseBytes - body.size(), ' ');
  EXPECT_EQ(decodePhoneApprovalResponse<PhoneApprovalMiddlewareRecord>(body).requestId, "req_1");
  body += ' ';
  EXPECT_EQ(decodingFailure<PhoneApprovalMiddlewareRecord>(body, Kind::tooLarge),
            "The response is larger than 1 MiB.");
}

TEST(PhoneApprovalRecordsTest, RequestFromProfileRoundTrips) {
  RecoveryProfile profile;
  profile.id = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
  profile.macName = "Studio";
  profile.localHostname = "studio.local";
  const Date requestedAt{1763223600s + 123456789ns};
  const auto request = PhoneApprovalRequest::make(profile, requestedAt, 300s);
  EXPECT_TRUE(uuid::parse(request.id).has_value());
  const json::Json encoded = encodePhoneApproval(request);
  EXPECT_EQ(encoded.at("requestedAt"), "2025-11-15T16:20:00.123456789Z");
  EXPECT_EQ(decodePhoneApproval<PhoneApprovalRequest>(json::parse(json::serialize(encoded))), request);

  const auto whole = PhoneApprovalRequest::make(profile, Date{1763223600s + 250ms}, 1s);
  EXPECT_EQ(encodePhoneApproval(whole).at("requestedAt"), "2025-11-15T16:20:00.25Z");
  EXPECT_EQ(encodePhoneApproval(whole).at("expiresAt"), "2025-11-15T16:20:01.25Z");
}

}  // namespace
}  // namespace harborkeeper
