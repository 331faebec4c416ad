#include "core/heartbeat/docker_heartbeat_request.h"

#include <gtest/gtest.h>

#include "core/platform/fixed_clock.h"

namespace harborkeeper {
namespace {

using namespace std::chrono_literals;
using testing_support::FixedClock;

// Expected signatures were computed with Python's hmac and base64 modules
// (urlsafe_b64encode, padding stripped), and this one also with
// `printf '0.' | openssl dgst -sha256 -hmac KEY -binary | base64`; the request
// test below checks one over a body and a non-ASCII secret.
TEST(DockerHeartbeatRequestTest, SignatureCoversTimestampDotBody) {
  EXPECT_EQ(DockerHeartbeat::heartbeatSignature("0123456789abcdef0123456789abcdef", "0", ""),
            "tbP77VtZ2SUxbW0520l6unCCCWHdpT3-I6h1Wdqx62s");
}

TEST(DockerHeartbeatRequestTest, RequestCarriesTheSignedBodyAndTimestamp) {
  // 1763223600.9 s now, booted 3600.4 s ago: boot at 1763220000.5.
  const FixedClock clock(date_time::fromSecondsSince1970(1763223600.9), 3600400ms);
  const DockerHeartbeatConfiguration configuration{"HTTPS://Unlocker.local:8443/heartbeat", " docker-1 ",
                                                   "  shared secret with spaces, \xC3\xA9 and \xC3\xBC  ",
                                                   60};
  const DockerHeartbeatHttpRequest request =
      DockerHeartbeat::heartbeatRequest(configuration, clock, "rack/mini");

  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.url, "https://Unlocker.local:8443/heartbeat");
  EXPECT_EQ(request.timeout, 10s);
  EXPECT_EQ(
      request.body,
      R"({"bootIdentifier":"1763220000","helperVersion":"1.3","hostName":"rack/mini","profileId":" docker-1 "})");
  const std::vector<std::pair<std::string, std::string>> headers{
      {"Content-Type", "application/json"},
      {"X-Harborkeeper-Heartbeat-Timestamp", "1763223600"},
      {"X-Harborkeeper-Heartbeat-Signature", "_8h033zd72mfWzGPvCfHilzjSvGkmeVAfB0bILwLOPA"},
  };
  EXPECT_EQ(request.headers, headers);
}

TEST(DockerHeartbeatRequestTest, UnsendableEndpointBuildsNothing) {
  const FixedClock clock;
  for (const std::string url : {"http:no-host", "https://exa mple.local/", "https://[::1/"}) {
    SCOPED_TRACE(url);
    try {
      (void)DockerHeartbeat::heartbeatRequest({url, "p", "s", 60}, clock, "h");
      ADD_FAILURE() << "built";
    } catch (const DockerHeartbeatConfigurationStoreError& error) {
      EXPECT_STREQ(error.what(), "Docker heartbeat configuration is invalid. Use a valid heartbeat URL.");
    }
  }
}

}  // namespace
}  // namespace harborkeeper
