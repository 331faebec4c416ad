// The daemon's heartbeat, power recovery and uninstall requests end to end:
// the built harborkeeper-helper driven by the built CLI, beats received and
// checked by a separate HTTP server on loopback.

#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/integration/daemon_harness.h"

namespace harborkeeper::testing_support {
namespace {

const std::string kSecret = "heartbeat secret 7f3a9c2e51d84b06";
const std::string kProfile = " docker-1 ";
const std::string kInsecureFile = "Harborkeeper helper state file is not private. Expected permissions 600.";

struct Beat {
  double arrived = 0;
  std::vector<std::string> faults;
};

// The receiver, its log of beats and the daemon under test.
class HeartbeatTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    if (IsSkipped()) return;
    writeRaw(daemon_.dir / "secret", kSecret);
    fs::copy_file(fs::path(HARBORKEEPER_TEST_TOOLS_DIR) / "pmset_standin.sh", pmsetDir() / "pmset");
    fs::permissions(pmsetDir() / "pmset", fs::perms(0755));
  }

  void startReceiver(const std::string& answers) {
    receiver_ =
        ChildProcess({HARBORKEEPER_PYTHON3, fs::path(HARBORKEEPER_TEST_TOOLS_DIR) / "heartbeat_receiver.py",
                      daemon_.dir / "port", daemon_.dir / "beats.log", daemon_.dir / "secret", kProfile,
                      "--answers", answers},
                     daemon_.dir / "receiver.out", true);
    ASSERT_TRUE(eventually([&] { return fs::exists(daemon_.dir / "port"); }, 10s))
        << contentOf(daemon_.dir / "receiver.out");
    endpoint_ = "http://127.0.0.1:" + contentOf(daemon_.dir / "port") + "/heartbeat";
  }

  CliOutcome configure(double interval) {
    return daemon_.cli({"heartbeat", "configure", "--endpoint", endpoint_, "--profile", kProfile,
                        "--interval", std::to_string(interval), "--secret-stdin"},
                       builtCli(), kSecret);
  }

  [[nodiscard]] std::vector<Beat> beats() const {
    std::vector<Beat> result;
    std::istringstream lines(contentOf(daemon_.dir / "beats.log"));
    for (std::string line; std::getline(lines, line);) {
      const auto record = nlohmann::json::parse(line);
      result.push_back({record["arrived"], record["faults"]});
    }
    return result;
  }
  bool awaitBeats(std::size_t count, std::chrono::seconds limit) const {
    return eventually([&] { return beats().size() >= count; }, limit);
  }
  [[nodiscard]] fs::path pmsetDir() const { return tools_.path(); }

  const TemporaryDirectory tools_;
  Daemon daemon_{
      "fdesetup_lists_two_users.sh", {}, {"--tool", "pmset=" + (tools_.path() / "pmset").string()}};
  ChildProcess receiver_;
  std::string endpoint_;
};

// A hung first beat and a failing third are logged; the timer keeps its 30 s
// pace, only one timer runs after two configures, and a restart beats at once.
TEST_F(HeartbeatTest, BeatsAreSignedAndKeepTheirPaceThroughFailures) {
  startReceiver("hang,204,500");
  EXPECT_EQ(configure(5), (CliOutcome{0, "Docker heartbeat is configured.", ""}));
  ASSERT_TRUE(awaitBeats(1, 5s));
  EXPECT_EQ(configure(5), (CliOutcome{0, "Docker heartbeat is configured.", ""}));
  ASSERT_TRUE(awaitBeats(2, 5s)) << "the hung beat held up the next one";

  ASSERT_TRUE(awaitBeats(3, 40s)) << daemon_.log();
  std::this_thread::sleep_for(2s);
  std::vector<Beat> received = beats();
  ASSERT_EQ(received.size(), 3U) << "a second timer is running";
  EXPECT_NEAR(received[2].arrived - received[1].arrived, 30.0, 1.0);
  EXPECT_EQ(daemon_.logLines("Docker heartbeat failed: timed out after 10 s ("), 1U) << daemon_.log();
  EXPECT_EQ(daemon_.logLines("Docker heartbeat returned HTTP 500."), 1U);

  const auto [status, json, error] = daemon_.cli({"heartbeat", "status", "--json"});
  EXPECT_EQ(nlohmann::json::parse(json), (nlohmann::json{{"configured", true},
                                                         {"endpointURL", endpoint_},
                                                         {"profileID", kProfile},
                                                         {"intervalSeconds", 30.0}}));

  daemon_.restart();
  ASSERT_TRUE(awaitBeats(4, 5s)) << "no beat at launch";
  for (const Beat& beat : beats()) EXPECT_TRUE(beat.faults.empty()) << testing::PrintToString(beat.faults);
  EXPECT_EQ(daemon_.log().find(kSecret), std::string::npos);
}

// The branches are the helper's own tests; these prove them through a restart and the CLI.
TEST_F(HeartbeatTest, AnInsecureConfigurationStopsTheHeartbeatAndCannotBeDeleted) {
  startReceiver("");
  ASSERT_EQ(std::get<0>(configure(600)), 0);
  ASSERT_TRUE(awaitBeats(1, 5s));
  const fs::path file = daemon_.dir / "state/DockerHeartbeat.plist";
  fs::permissions(file, fs::perms(0644));

  daemon_.restart();
  EXPECT_TRUE(eventually([&] {
    return daemon_.logLines(
               "Docker heartbeat is disabled: Docker heartbeat configuration is not stored safely. " +
               kInsecureFile) == 1;
  }));
  EXPECT_EQ(beats().size(), 1U);
  EXPECT_EQ(daemon_.cli({"heartbeat", "status"}), (CliOutcome{0, "Docker heartbeat is not configured.", ""}));
  EXPECT_EQ(daemon_.cli({"heartbeat", "disable"}), (CliOutcome{1, "", "harborkeeper: " + kInsecureFile}));
  fs::permissions(file, fs::perms(0600));
  EXPECT_EQ(daemon_.cli({"heartbeat", "disable"}), (CliOutcome{0, "Docker heartbeat is disabled.", ""}));
  EXPECT_FALSE(fs::exists(file));
}

// pmset runs with exactly its arguments, no input and a scrubbed environment,
// and its own words come back through the CLI.
TEST_F(HeartbeatTest, PowerRecoveryRepliesWithWhatPmsetSaid) {
  EXPECT_EQ(daemon_.cli({"power-recovery", "enable"}),
            (CliOutcome{0, "Automatic power recovery is enabled.", ""}));
  writeRaw(pmsetDir() / "pmset.mode", "stderr");
  EXPECT_EQ(daemon_.cli({"power-recovery", "enable"}),
            (CliOutcome{1, "", "harborkeeper: pmset: must be run as root"}));
  EXPECT_EQ(contentOf(pmsetDir() / "pmset.runs"), "-a autorestart 1\n-a autorestart 1\n");
  EXPECT_EQ(contentOf(pmsetDir() / "pmset.env").find("HARBORKEEPER_TEST_MARKER"), std::string::npos);
}

TEST_F(HeartbeatTest, UninstallRemovesTheStateItOwnsAndNothingElse) {
  const fs::path state = daemon_.dir / "state";
  startReceiver("");
  ASSERT_EQ(std::get<0>(configure(60)), 0);
  writeRaw(state / "operator-notes.txt", "kept");
  EXPECT_EQ(daemon_.cli({"prepare-uninstall"}), (CliOutcome{0, "Harborkeeper helper state removed.", ""}));
  EXPECT_FALSE(fs::exists(state / "DockerHeartbeat.plist"));
  EXPECT_EQ(contentOf(state / "operator-notes.txt"), "kept");
}

}  // namespace
}  // namespace harborkeeper::testing_support
