#include "core/approval/phone_approval_middleware_client.h"

#include <functional>

#include <gtest/gtest.h>

#include "core/approval/phone_approval_request_signer.h"
#include "core/approval/phone_approval_test_support.h"

namespace harborkeeper {
namespace {

using namespace std::chrono_literals;
using Headers = std::vector<std::pair<std::string, std::string>>;
using ErrorKind = PhoneApprovalMiddlewareError::Kind;

const Date kNow{1763223600s + 900ms};
constexpr std::string_view kRecord =
    R"({"requestId":"req_9","listenerId":"lst_123","profileId":"P","macName":"Mini","localHostname":"mini.local",)"
    R"("createdAt":"c","expiresAt":"e","status":"approved"})";

class RecordingTransport final : public PhoneApprovalMiddlewareTransport {
 public:
  PhoneApprovalHTTPResponse response(const PhoneApprovalHTTPRequest& request) const override {
    seen.push_back(request);
    return answer;
  }
  mutable std::vector<PhoneApprovalHTTPRequest> seen;
  PhoneApprovalHTTPResponse answer{200, std::string(kRecord)};
};

struct Fixture {
  explicit Fixture(PhoneApprovalMiddlewareConfiguration configuration = {"https://approvals.example/api/",
                                                                         " lst_123\n",
                                                                         "s3cr3t listener secret", 300})
      : transport(std::make_shared<RecordingTransport>()),
        client(std::move(configuration), transport, [] { return kNow; }) {}
  std::shared_ptr<RecordingTransport> transport;
  PhoneApprovalMiddlewareClient client;
};

PhoneApprovalRequest sampleRequest() { return {"R-ID", "P-ID", "Mini", "mini.local", kNow, kNow + 300s}; }

Headers signedHeaders(const std::string& method, const std::string& path, const std::string& body) {
  return {{"content-type", "application/json"},
          {"accept", "application/json"},
          {"cache-control", "no-store"},
          {"authorization", PhoneApprovalRequestSigner::authorizationHeader(
                                "lst_123", "s3cr3t listener secret", method, path, kNow, body)}};
}

struct Operation {
  std::string name;
  std::function<void(const PhoneApprovalMiddlewareClient&)> call;
  std::string method;
  std::string path;
  std::optional<std::string> body;
  std::string answer;
};

std::vector<Operation> signedOperations() {
  const std::string device =
      R"({"deviceId":"dev_1","listenerId":"lst_123","displayName":"Phone","registeredAt":"r"})";
  const PhoneApprovalDevicePublicKeyJWK jwk{.x = "xx", .y = "yy"};
  return {
      {"create", [](const auto& c) { c.createApprovalRequest(sampleRequest()); }, "POST",
       "/v1/approval-requests",
       R"({"expiresInSeconds":300,"localHostname":"mini.local","macName":"Mini","profileId":"P-ID"})",
       std::string(kRecord)},
      {"create with ttl", [](const auto& c) { c.createApprovalRequest(sampleRequest(), 45); }, "POST",
       "/v1/approval-requests",
       R"({"expiresInSeconds":45,"localHostname":"mini.local","macName":"Mini","profileId":"P-ID"})",
       std::string(kRecord)},
      {"read", [](const auto& c) { c.readApprovalRequest("req_9"); }, "GET", "/v1/approval-requests/req_9",
       std::nullopt, std::string(kRecord)},
      {"consume", [](const auto& c) { c.consumeApprovalRequest("req_9"); }, "POST",
       "/v1/approval-requests/req_9/consume", std::nullopt, std::string(kRecord)},
      {"pairing token", [](const auto& c) { c.createPhonePairingToken("Phone", 600); }, "POST",
       "/v1/listeners/lst_123/device-pairing-tokens", R"({"displayName":"Phone","expiresInSeconds":600})",
       R"({"listenerId":"lst_123","pairingToken":"tok","displayName":"Phone","expiresAt":"e","secretShownOnce":true})"},
      {"register device", [jwk](const auto& c) { c.registerPairedDevice("Phone", "apns", jwk); }, "POST",
       "/v1/listeners/lst_123/devices",
       R"({"apnsToken":"apns","devicePublicKeyJwk":{"crv":"P-256","kty":"EC","x":"xx","y":"yy"},"displayName":"Phone"})",
       device},
      {"list", [](const auto& c) { c.listPairedDevices(); }, "GET", "/v1/listeners/lst_123/devices",
       std::nullopt, R"({"devices":[]})"},
      {"test notification", [](const auto& c) { c.sendPairedDeviceTestNotification(); }, "POST",
       "/v1/listeners/lst_123/devices/test-notification", "{}",
       R"({"testId":"t","listenerId":"lst_123","queued":true,"createdAt":"c"})"},
      {"rename", [](const auto& c) { c.renamePairedDevice("dev_1", "Work phone"); }, "PATCH",
       "/v1/listeners/lst_123/devices/dev_1", R"({"displayName":"Work phone"})", device},
      {"revoke", [](const auto& c) { c.revokePairedDevice("dev_1"); }, "DELETE",
       "/v1/listeners/lst_123/devices/dev_1", std::nullopt, R"({"deviceId":"dev_1","revoked":true})"},
  };
}

ErrorKind failureKind(const std::function<void()>& call) {
  try {
    call();
  } catch (const PhoneApprovalMiddlewareError& error) {
    return error.kind();
  }
  ADD_FAILURE() << "no PhoneApprovalMiddlewareError";
  return ErrorKind::invalidResponse;
}

TEST(PhoneApprovalMiddlewareClientTest, EndpointResolution) {
  const struct {
    std::string_view base;
    std::string_view path;
    std::string_view url;  // empty: invalidEndpoint
  } cases[] = {
      {"https://approvals.example/api", "/v1/listeners", "https://approvals.example/v1/listeners"},
      {"https://approvals.example/api/", "/v1/listeners", "https://approvals.example/api/v1/listeners"},
      {"https://approvals.example", "/v1/listeners", "https://approvals.example/v1/listeners"},
      {"https://approvals.example:8443/api/?tenant=1", "/v1/approval-requests/r/consume",
       "https://approvals.example:8443/api/v1/approval-requests/r/consume"},
      {"http://127.0.0.1:9/", "v1/listeners", "http://127.0.0.1:9/v1/listeners"},
      {"", "/v1/listeners", ""},
      {"approvals.example/api/", "/v1/listeners", ""},
      {"https://approvals example/", "/v1/listeners", ""},
      {"https://approvals.example:99999/", "/v1/listeners", ""},
      {"https://approvals.example/", "/v1/approval-requests/a b", ""},
  };
  for (const auto& testCase : cases) {
    SCOPED_TRACE(std::string(testCase.base) + " + " + std::string(testCase.path));
    if (!testCase.url.empty()) {
      EXPECT_EQ(PhoneApprovalMiddlewareClient::resolveEndpointURL(testCase.base, testCase.path),
                testCase.url);
    } else {
      EXPECT_EQ(failureKind(
                    [&] { PhoneApprovalMiddlewareClient::resolveEndpointURL(testCase.base, testCase.path); }),
                ErrorKind::invalidEndpoint);
    }
  }
}

TEST(PhoneApprovalMiddlewareClientTest, SignedOperationsSendExactRequests) {
  for (const Operation& operation : signedOperations()) {
    SCOPED_TRACE(operation.name);
    Fixture fixture;
    fixture.transport->answer.body = operation.answer;
    operation.call(fixture.client);
    ASSERT_EQ(fixture.transport->seen.size(), 1U);
    const PhoneApprovalHTTPRequest& sent = fixture.transport->seen.front();
    EXPECT_EQ(sent.method, operation.method);
    EXPECT_EQ(sent.url, "https://approvals.example/api" + operation.path);
    EXPECT_EQ(sent.body, operation.body);
    EXPECT_EQ(sent.timeout, 60s);
    EXPECT_EQ(sent.headers, signedHeaders(operation.method, operation.path, operation.body.value_or("")));
  }
}

TEST(PhoneApprovalMiddlewareClientTest, TestNotificationSignsTheTwoBodyBytes) {
  Fixture fixture;
  fixture.transport->answer.body = R"({"testId":"t","listenerId":"lst_123","queued":true,"createdAt":"c"})";
  EXPECT_TRUE(fixture.client.sendPairedDeviceTestNotification().queued);
  // Made with: printf 'POST\n/v1/listeners/lst_123/devices/test-notification\n1763223600\n%s'
  //   "$(printf '{}' | openssl dgst -sha256 -binary | base64 | tr '+/' '-_' | tr -d '=')" |
  //   openssl dgst -sha256 -hmac 's3cr3t listener secret' -binary | base64 | tr '+/' '-_' | tr -d '='
  EXPECT_EQ(fixture.transport->seen.at(0).headers.back().second,
            "Harborkeeper-HMAC listenerId=lst_123,timestamp=1763223600,"
            "signature=x1bUm5B1u7JWanyMgnPlszq51ADltdgeT7GpVrltzfQ");
}

TEST(PhoneApprovalMiddlewareClientTest, MissingCredentialsSendNothing) {
  for (const auto& [id, secret] :
       std::vector<std::pair<std::string, std::string>>{{"lst_123", "  "}, {"\n\t", "secret"}, {"", ""}}) {
    for (const Operation& operation : signedOperations()) {
      SCOPED_TRACE(operation.name + " id=" + id + " secret=" + secret);
      Fixture fixture({"https://approvals.example/api/", id, secret, 300});
      try {
        operation.call(fixture.client);
        ADD_FAILURE() << "sent";
      } catch (const PhoneApprovalMiddlewareError& error) {
        EXPECT_EQ(error.kind(), ErrorKind::missingListenerCredentials);
        EXPECT_STREQ(error.what(), "Phone approval route is not configured.");
      }
      EXPECT_TRUE(fixture.transport->seen.empty());
    }
  }
}

TEST(PhoneApprovalMiddlewareClientTest, RegisterListenerNeedsNoCredentials) {
  Fixture fixture({"https://approvals.example/api/", "", "  ", 300});
  fixture.transport->answer.body =
      R"({"listenerId":"lst_9","listenerSecret":"new secret","registeredAt":"r","secretShownOnce":true})";
  const auto registration = fixture.client.registerListener("Rack mini");
  EXPECT_EQ(registration.listenerSecret, "new secret");
  const PhoneApprovalHTTPRequest& sent = fixture.transport->seen.at(0);
  EXPECT_EQ(sent.url, "https://approvals.example/api/v1/listeners");
  EXPECT_EQ(sent.body, R"({"displayName":"Rack mini"})");
  const Headers expected{
      {"content-type", "application/json"}, {"accept", "application/json"}, {"cache-control", "no-store"}};
  EXPECT_EQ(sent.headers, expected);
}

TEST(PhoneApprovalMiddlewareClientTest, StatusCodesAndBodies) {
  const struct {
    long status;
    std::string body;
    std::string error;  // empty: succeeds
  } cases[] = {
      {200, std::string(kRecord), ""},
      {299, std::string(kRecord), ""},
      {204, "", "The response is not JSON."},
      {300, std::string(kRecord), "Phone approval middleware returned HTTP 300."},
      {409, R"({"error":"conflict"})", "Phone approval middleware returned HTTP 409."},
      {199, std::string(kRecord), "Phone approval middleware returned HTTP 199."},
      {500, "", "Phone approval middleware returned HTTP 500."},
  };
  for (const auto& testCase : cases) {
    SCOPED_TRACE(testCase.status);
    Fixture fixture;
    fixture.transport->answer = {testCase.status, testCase.body};
    try {
      EXPECT_EQ(fixture.client.consumeApprovalRequest("req_9").status,
                PhoneApprovalMiddlewareStatus::approved);
      EXPECT_EQ(testCase.error, "");
    } catch (const PhoneApprovalMiddlewareError& error) {
      EXPECT_EQ(error.what(), testCase.error);
      EXPECT_EQ(error.statusCode(), testCase.status);
    } catch (const PhoneApprovalDecodingError& error) {
      EXPECT_EQ(error.what(), testCase.error);
    }
  }
}

TEST(PhoneApprovalMiddlewareClientTest, TransportErrorsPassThrough) {
  struct Unreachable : std::runtime_error {
    using std::runtime_error::runtime_error;
  };
  struct Failing final : PhoneApprovalMiddlewareTransport {
    PhoneApprovalHTTPResponse response(const PhoneApprovalHTTPRequest&) const override {
      throw Unreachable("down");
    }
  };
  const PhoneApprovalMiddlewareClient client({"https://a.example/", "l", "s", 60},
                                             std::make_shared<Failing>());
  EXPECT_THROW(client.readApprovalRequest("r"), Unreachable);
}

TEST(PhoneApprovalMiddlewareClientTest, DeviceDecisionCarriesTheAssertion) {
  const auto signer = PhoneApprovalDeviceAssertionSigner::generate();
  for (const auto decision : {PhoneApprovalDeviceDecision::approved, PhoneApprovalDeviceDecision::denied}) {
    SCOPED_TRACE(rawValue(decision));
    Fixture fixture({"https://approvals.example/", "", "", 300});  // no listener needed on the phone
    fixture.client.submitDeviceDecision("req_9", "dev_1", decision, signer);
    const PhoneApprovalHTTPRequest& sent = fixture.transport->seen.at(0);
    const std::string action = decision == PhoneApprovalDeviceDecision::approved ? "approve" : "deny";
    EXPECT_EQ(sent.method, "POST");
    EXPECT_EQ(sent.url, "https://approvals.example/v1/approval-requests/req_9/" + action);
    EXPECT_EQ(sent.body, std::nullopt);
    ASSERT_EQ(sent.headers.size(), 3U);
    EXPECT_EQ(sent.headers[0], (std::pair<std::string, std::string>{"accept", "application/json"}));
    EXPECT_EQ(sent.headers[1], (std::pair<std::string, std::string>{"cache-control", "no-store"}));
    EXPECT_EQ(sent.headers[2].first, "x-harborkeeper-device-assertion");
    const std::string prefix = "Harborkeeper-Device deviceId=dev_1,timestamp=1763223600,signature=";
    ASSERT_TRUE(sent.headers[2].second.starts_with(prefix)) << sent.headers[2].second;
    EXPECT_TRUE(testing_support::verifies(signer.publicKeyJWK(),
                                          "POST\n/v1/approval-requests/req_9/" + action + "\nreq_9\n" +
                                              std::string(rawValue(decision)) + "\n1763223600",
                                          sent.headers[2].second.substr(prefix.size())));
  }
}

}  // namespace
}  // namespace harborkeeper
