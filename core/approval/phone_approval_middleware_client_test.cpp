#include "core/approval/phone_approval_middleware_client.h"

#include <gtest/gtest.h>

namespace harborkeeper {
namespace {

using namespace std::chrono_literals;
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
  explicit Fixture(std::string id = " lst_123\n", std::string secret = "s3cr3t listener secret")
      : transport(std::make_shared<RecordingTransport>()),
        client({"https://approvals.example/api/", std::move(id), std::move(secret), 300}, transport,
               [] { return kNow; }) {}
  std::shared_ptr<RecordingTransport> transport;
  PhoneApprovalMiddlewareClient client;
};

// A base path with and without its final "/" is phone_approval_test's, end to end.
TEST(PhoneApprovalMiddlewareClientTest, EndpointResolution) {
  const struct {
    std::string_view base;
    std::string_view path;
    std::string_view url;  // empty: invalidEndpoint
  } cases[] = {
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
    try {
      EXPECT_EQ(PhoneApprovalMiddlewareClient::resolveEndpointURL(testCase.base, testCase.path),
                testCase.url);
      EXPECT_NE(testCase.url, "");  // an invalid endpoint must throw
    } catch (const PhoneApprovalMiddlewareError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::invalidEndpoint);
      EXPECT_EQ(testCase.url, "");
    }
  }
}

// Blank or white-space credentials stop a listener operation before it is sent.
TEST(PhoneApprovalMiddlewareClientTest, OnlyListenerOperationsNeedCredentials) {
  for (const auto& [id, secret] :
       std::vector<std::pair<std::string, std::string>>{{"lst_123", "  "}, {"\n\t", "secret"}, {"", ""}}) {
    SCOPED_TRACE(::testing::Message() << "id=" << id << " secret=" << secret);
    Fixture fixture(id, secret);
    try {
      fixture.client.createApprovalRequest({"R", "P", "m", "h", kNow, kNow + 300s});
      ADD_FAILURE() << "sent";
    } catch (const PhoneApprovalMiddlewareError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::missingListenerCredentials);
      EXPECT_STREQ(error.what(), "Phone approval route is not configured.");
    }
    EXPECT_TRUE(fixture.transport->seen.empty());
  }

  // A phone's decision goes out without listener credentials, as a first
  // registration does in phone_approval_test.
  Fixture blank("", "");
  blank.client.submitDeviceDecision("req_9", "dev_1", PhoneApprovalDeviceDecision::approved,
                                    PhoneApprovalDeviceAssertionSigner::generate());
  EXPECT_EQ(blank.transport->seen.size(), 1U);
}

// The end-to-end stand-in verifies every signature; here, the limit and the
// trimmed listener id it is signed with.
TEST(PhoneApprovalMiddlewareClientTest, OnlyTwoHundredsSucceed) {
  for (const long status : {199L, 299L, 300L}) {
    SCOPED_TRACE(status);
    Fixture fixture;
    fixture.transport->answer.statusCode = status;
    const auto sent = [&] { return fixture.transport->seen.at(0); };
    try {
      EXPECT_EQ(fixture.client.consumeApprovalRequest("req_9").status,
                PhoneApprovalMiddlewareStatus::approved);
      EXPECT_EQ(status, 299);
    } catch (const PhoneApprovalMiddlewareError& error) {
      EXPECT_EQ(error.what(), "Phone approval middleware returned HTTP " + std::to_string(status) + ".");
      EXPECT_EQ(error.statusCode(), status);
    }
    EXPECT_EQ(sent().timeout, 60s);
    EXPECT_TRUE(sent().headers.back().second.starts_with("Harborkeeper-HMAC listenerId=lst_123,"));
  }
}

}  // namespace
}  // namespace harborkeeper
