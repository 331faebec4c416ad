#include "core/approval/phone_approval_records.h"

#include <gtest/gtest.h>

namespace harborkeeper {
namespace {

using Kind = PhoneApprovalDecodingError::Kind;

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
      {R"("a\"b\n")", Kind::unknownValue, R"("status": unknown value "a\"b\n".)"},
      {"1", Kind::wrongType, R"("status" must be a string.)"},
      {"null", Kind::missingKey, R"("status" is missing.)"},
  };
  for (const auto& failure : failures) {
    SCOPED_TRACE(failure.status);
    EXPECT_EQ(decodingFailure<PhoneApprovalMiddlewareRecord>(withStatus(failure.status), failure.kind),
              failure.message);
  }
}

// A stored approval request's own coding (its ids and dates) is
// fuzz_phone_approval_records', replayed over its corpus; a body that is not
// JSON at all is phone_approval_test's.
TEST(PhoneApprovalRecordsTest, StrictTypesAndRequiredKeys) {
  constexpr auto registration = decodingFailure<PhoneApprovalListenerRegistrationRecord>;
  constexpr auto deviceList = decodingFailure<PhoneApprovalPairedDeviceListRecord>;
  constexpr auto middleware = decodingFailure<PhoneApprovalMiddlewareRecord>;
  const struct {
    std::string body;
    std::string (*decode)(std::string_view, Kind);
    Kind kind;
    std::string_view message;
  } cases[] = {
      // The whole message: a wrongly typed value, here a secret, is never quoted.
      {R"({"listenerId":"l","listenerSecret":"s","registeredAt":"t","secretShownOnce":"TOPSECRET"})",
       registration, Kind::wrongType, R"("secretShownOnce" must be a boolean.)"},
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
  };
  for (const auto& testCase : cases) {
    SCOPED_TRACE(testCase.body);
    EXPECT_EQ(testCase.decode(testCase.body, testCase.kind), testCase.message);
  }
}

TEST(PhoneApprovalRecordsTest, AnAbsentExpiryIsWrittenAsNoKey) {
  const auto device = decodePhoneApprovalResponse<PhoneApprovalPairedDeviceRecord>(
      R"({"deviceId":"d","listenerId":"l","displayName":"n","registeredAt":"r","extra":1})");
  EXPECT_EQ(device.expiresAt, std::nullopt);
  EXPECT_EQ(json::serialize(encodePhoneApproval(device)),
            R"({"deviceId":"d","displayName":"n","listenerId":"l","registeredAt":"r"})");
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

}  // namespace
}  // namespace harborkeeper
