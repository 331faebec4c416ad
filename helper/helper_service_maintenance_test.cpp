#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "core/platform/command_runner_test_support.h"
#include "core/platform/state_file_test_support.h"
#include "helper/helper_service.h"
#include "helper/testing/fake_credential_vault.h"
#include "helper/testing/fake_heartbeat.h"
#include "helper/testing/recording_logger.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using namespace std::chrono_literals;
using Result = ipc::HelperCommandResult;

const std::string kSecret = "a shared secret of 30 chars...";
const std::string kDirectory = "Harborkeeper helper state directory is not private. ";

struct NoAccounts final : AccountDirectory {
  bool verifyPassword(const std::string&, std::string_view) const noexcept override { return false; }
};

struct MaintenanceTest : testing::Test {
  MaintenanceTest() {
    service = std::make_unique<HelperService>(
        HelperServiceConfiguration{
            .stateDirectory = state, .pmsetPath = "/stand-in/pmset", .stateOwner = ::getuid()},
        HelperServiceDependencies{tools, vault, std::make_shared<NoAccounts>(), heartbeat.clock,
                                  heartbeat.manager(state, ::getuid(), logger)},
        logger);
  }

  Result configure(const std::string& url, double interval, const std::string& secret = kSecret) const {
    Result result = service->configureDockerHeartbeat(
        DockerHeartbeatConfiguration{url, "docker-1", secret, interval}.encodeXml());
    settle();
    return result;
  }
  void settle() const { service->heartbeatManager().drain(); }
  [[nodiscard]] std::size_t beats() const { return heartbeat.transport->requests().size(); }

  const TemporaryDirectory temp;
  const fs::path state = temp.path() / "state";
  const fs::path configFile = state / "DockerHeartbeat.plist";
  FakeHeartbeat heartbeat;
  std::shared_ptr<RecordingTools> tools = std::make_shared<RecordingTools>();
  std::shared_ptr<FakeVault> vault = std::make_shared<FakeVault>();
  RecordingLogger logger;
  std::unique_ptr<HelperService> service;
};

// Each configure beats at once and replaces the timer, which runs at the
// rounded interval to the new endpoint. The daemon test proves the beat at
// once and the single timer against a real receiver.
TEST_F(MaintenanceTest, EachConfigureBeatsAtOnceAndLeavesOneTimer) {
  EXPECT_EQ(configure("https://unlocker.local/hb", 60), (Result{true, "Docker heartbeat is configured."}));
  EXPECT_TRUE(configure("https://unlocker.local/second", 45.5).success);
  EXPECT_EQ(heartbeat.timers->lastInterval(), 46s);
  heartbeat.timers->fire();
  settle();
  ASSERT_EQ(beats(), 3U);
  EXPECT_EQ(heartbeat.transport->requests().back().url, "https://unlocker.local/second");
}

TEST_F(MaintenanceTest, RefusedConfigurationLeavesTheHeartbeatAlone) {
  ASSERT_TRUE(configure("https://unlocker.local/hb", 60).success);
  // Its words are the configuration's own test's.
  EXPECT_FALSE(configure("https://unlocker.local/hb", 60, "too short                 ").success);
  EXPECT_EQ(service->configureDockerHeartbeat(toBytes("not a property list")),
            (Result{false, "The data couldn’t be read because it isn’t in the correct format."}));
  settle();
  EXPECT_EQ(beats(), 1U);  // no reload
  EXPECT_EQ(heartbeat.timers->liveCount(), 1);
  EXPECT_EQ(contentOf(configFile).find("too short"), std::string::npos);
}

// A refused disable leaves the timer; the next load of the insecure file
// stops it. The daemon test proves the line it logs, and that only a
// deleted file counts as disabled.
TEST_F(MaintenanceTest, InsecureConfigurationStopsTheHeartbeatButNotADisable) {
  EXPECT_EQ(service->disableDockerHeartbeat(), (Result{true, "Docker heartbeat is disabled."}));
  EXPECT_FALSE(fs::exists(state));

  ASSERT_TRUE(configure("https://unlocker.local/hb", 60).success);
  fs::permissions(configFile, fs::perms(0644));
  EXPECT_EQ(service->disableDockerHeartbeat(),
            (Result{false, "Harborkeeper helper state file is not private. Expected permissions 600."}));
  settle();
  EXPECT_EQ(heartbeat.timers->liveCount(), 1);
  service->heartbeatManager().reload();
  settle();
  EXPECT_EQ(heartbeat.timers->liveCount(), 0);

  fs::remove(configFile);
  const std::size_t linesBefore = logger.lines().size();
  service->heartbeatManager().start();
  settle();
  EXPECT_EQ(logger.lines().size(), linesBefore);  // nothing configured is not worth a line
}

// Neither a failed beat nor an unsendable endpoint stops the timer; the daemon
// test proves the lines for a timed-out beat and an HTTP 500.
TEST_F(MaintenanceTest, BeatOutcomesAreOnlyLogged) {
  using Kind = DockerHeartbeatOutcome::Kind;
  const struct {
    DockerHeartbeatOutcome outcome;
    std::string line;  // empty: nothing logged
    std::string url = "https://u/hb";
  } cases[] = {
      {{Kind::notHttp, {}, 0}, "Docker heartbeat returned a non-HTTP response."},
      {{Kind::httpStatus, {}, 199}, "Docker heartbeat returned HTTP 199."},
      {{Kind::httpStatus, {}, 299}, ""},
      {{},
       "Docker heartbeat request could not be built: Docker heartbeat configuration is invalid. Use a valid "
       "heartbeat URL.",
       "http:no-host"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    heartbeat.transport->outcome = c.outcome;
    const std::vector<std::string> before = logger.lines();
    ASSERT_TRUE(configure(c.url, 60).success);
    std::vector<std::string> expected = before;
    if (!c.line.empty()) expected.push_back(c.line);
    EXPECT_EQ(logger.lines(), expected);
    EXPECT_EQ(heartbeat.timers->liveCount(), 1);
  }
}

// The daemon test proves the arguments, and the words of a success and of a
// refusal on standard error, through a real run.
TEST_F(MaintenanceTest, PowerRecoveryReportsPmsetsOwnWords) {
  const struct {
    CommandResult pmset;
    Result expected;
  } cases[] = {
      {{" out \n", "\n must be root \n", 1, false}, {false, "must be root"}},
      {{"\tonly on stdout\n", " \n", 1, false}, {false, "only on stdout"}},
      {{"", "", 3, false}, {false, "pmset failed with exit code 3."}},
      {{"", "", -2, true}, {false, "pmset failed with exit code -2."}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected.message);
    tools->replies["pmset -a"] = c.pmset;
    EXPECT_EQ(service->enableAutomaticPowerRecovery(), c.expected);
    EXPECT_EQ(tools->runs.back().timeout, 30.0);
  }
}

// The daemon test proves that a file it does not own keeps the directory.
TEST_F(MaintenanceTest, UninstallRemovesEverythingItOwns) {
  EXPECT_EQ(service->prepareForUninstall(), (Result{true, "Harborkeeper helper state removed."}));
  ASSERT_TRUE(configure("https://unlocker.local/hb", 60).success);
  ProtectionStatusStore(state, ::getuid()).store({HelperProtectionMode::persistent, true, Date(), "armed"});
  vault->item = CredentialItem{};
  EXPECT_EQ(service->prepareForUninstall(), (Result{true, "Harborkeeper helper state removed."}));
  settle();
  EXPECT_EQ(heartbeat.timers->liveCount(), 0);
  EXPECT_FALSE(vault->item.has_value());
  EXPECT_FALSE(fs::exists(state));
}

TEST_F(MaintenanceTest, UninstallRefusesAnInsecureDirectoryAfterTheEarlierSteps) {
  fs::create_directory(state);
  fs::permissions(state, fs::perms(0755));
  vault->item = CredentialItem{};
  EXPECT_EQ(service->prepareForUninstall(), (Result{false, kDirectory + "Expected permissions 700."}));
  EXPECT_FALSE(vault->item.has_value());  // the credential went first
  EXPECT_TRUE(fs::exists(state));

  fs::permissions(state, fs::perms(0700));
  fs::rename(state, temp.path() / "real");
  fs::create_directory_symlink(temp.path() / "real", state);
  EXPECT_EQ(service->prepareForUninstall(), (Result{false, kDirectory + "Symbolic links are not allowed."}));
  EXPECT_TRUE(fs::exists(temp.path() / "real"));
}

}  // namespace
}  // namespace harborkeeper
