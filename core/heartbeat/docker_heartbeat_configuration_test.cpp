#include "core/heartbeat/docker_heartbeat_configuration.h"

#include <limits>

#include <gtest/gtest.h>

#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

const std::string kSecret24 = "abcdefghijklmnopqrstuvwx";

DockerHeartbeatConfiguration configuration(std::string url, std::string profile, std::string secret) {
  return {std::move(url), std::move(profile), std::move(secret), 60};
}

TEST(DockerHeartbeatConfigurationTest, ValidationStopsAtTheFirstBrokenRule) {
  const std::string badURL =
      "Docker heartbeat configuration is invalid. Use a valid HTTP or HTTPS heartbeat URL.";
  const std::string noProfile = "Docker heartbeat configuration is invalid. Missing Docker profile id.";
  const std::string shortSecret =
      "Docker heartbeat configuration is invalid. Heartbeat secret must be at least 24 characters.";
  const struct {
    DockerHeartbeatConfiguration value;
    std::string error;  // empty: valid
  } cases[] = {
      {configuration("HTTPS://unlocker.local:8443/heartbeat", "p", kSecret24), ""},
      {configuration("http:no-host-needed", "p", kSecret24), ""},
      {configuration("ftp://unlocker.local/", "p", kSecret24), badURL},
      {configuration("unlocker.local/heartbeat", "p", kSecret24), badURL},
      {configuration("https ://unlocker.local/", "p", kSecret24), badURL},
      {configuration("", "", ""), badURL},
      {configuration("https://unlocker.local/", " \n\t", kSecret24), noProfile},
      {configuration("https://unlocker.local/", "p", kSecret24.substr(0, 23) + "   "), shortSecret},
      {configuration("https://unlocker.local/", "p", "  " + kSecret24 + "\n"), ""},
      // 23 letters and one e with a combining accent: 25 code points, 24 characters.
      {configuration("https://unlocker.local/", "p", kSecret24.substr(0, 23) + "e\xCC\x81"), ""},
      {configuration("https://unlocker.local/", "p", kSecret24.substr(0, 22) + "e\xCC\x81"), shortSecret},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value.endpointURL + " | " + c.value.profileID + " | " + c.value.sharedSecret);
    EXPECT_EQ(testing_support::outcome<DockerHeartbeatConfigurationStoreError>([&] { c.value.validate(); }),
              c.error);
  }
}

// Values kept untrimmed through the file are proven by the daemon test's beats
// and status; round trips by fuzz_heartbeat_configuration.
TEST(DockerHeartbeatConfigurationTest, AnIntegerIntervalAsAnotherEncoderWritesItIsRead) {
  const std::string handWritten =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
      "<key>endpointURL</key><string>http://u</string><key>profileID</key><string>p</string>"
      "<key>sharedSecret</key><string>s</string><key>intervalSeconds</key><integer>90</integer>"
      "</dict></plist>";
  EXPECT_EQ(DockerHeartbeatConfiguration::decode(handWritten).intervalSeconds, 90.0);
}

TEST(DockerHeartbeatConfigurationTest, StatusCarriesNoSecretAndTheClampedInterval) {
  const DockerHeartbeatStatus status = DockerHeartbeatStatus::of({"https://u/h", "p", kSecret24, 1000});
  EXPECT_EQ(status, (DockerHeartbeatStatus{true, "https://u/h", "p", 600}));
  const Bytes encoded = status.encodeXml();
  EXPECT_EQ(asStringView(encoded).find(kSecret24), std::string_view::npos);
  EXPECT_EQ(DockerHeartbeatStatus::decode(asStringView(encoded)), status);
}

TEST(DockerHeartbeatConfigurationTest, IntervalIsClampedThenRounded) {
  const DockerHeartbeatIntervalBounds bounds;
  const struct {
    double requested, clamped;
    long long timerSeconds;
  } cases[] = {
      {45.5, 45.5, 46},
      {45.49, 45.49, 45},
      {30, 30, 30},
      {std::numeric_limits<double>::quiet_NaN(), 30, 30},
      {std::numeric_limits<double>::infinity(), 600, 600},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.requested);
    EXPECT_EQ(bounds.clamped(c.requested), c.clamped);
    EXPECT_EQ(bounds.timerInterval(c.requested).count(), c.timerSeconds);
  }
  EXPECT_EQ((DockerHeartbeatIntervalBounds{0.2, 600}).timerInterval(0.2).count(), 1);
}

}  // namespace
}  // namespace harborkeeper
