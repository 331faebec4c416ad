#include "core/heartbeat/docker_heartbeat_request.h"

#include <gtest/gtest.h>

#include "core/platform/fixed_clock.h"

namespace harborkeeper {
namespace {

using namespace std::chrono_literals;
using testing_support::FixedClock;

// The signature was computed with Python's hmac and base64 modules
// (urlsafe_b64encode, padding stripped). The daemon test's receiver checks the
// signature, headers and body of real beats the same way, within a few seconds
// of now; this pins the truncated timestamp and boot date, and a secret that is
// not ASCII. An endpoint a request cannot be built for is refused with the
// words the helper's maintenance test checks, and by fuzz_heartbeat_configuration.
TEST(DockerHeartbeatRequestTest, RequestCarriesTheSignedBodyAndTimestamp) {
  // 1763223600.9 s now, booted 3600.4 s ago: boot at 1763220000.5.
  const FixedClock clock(date_time::fromSecondsSince1970(1763223600.9), 3600400ms);
  const DockerHeartbeatConfiguration configuration{"HTTPS://Unlocker.local:8443/heartbeat", " docker-1 ",
                                                   "  shared secret with spaces, \xC3\xA9 and \xC3\xBC  ",
                                                   60};
  const DockerHeartbeatHttpRequest request =
      DockerHeartbeat::heartbeatRequest(configuration, clock, "rack/mini");

  EXPECT_EQ(request.url, "https://Unlocker.local:8443/heartbeat");
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

}  // namespace
}  // namespace harborkeeper
