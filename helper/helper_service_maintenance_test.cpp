#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
const std::string kStateFileNotPrivate =
    "Harborkeeper helper state file is not private. Expected permissions 600.";
const std::string kDirectoryNotPrivate =
    "Harborkeeper helper state directory is not private. Expected permissions 700.";

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

  Result configure(const std::string& url, double interval, const std::string& secret = kSecret) {
    const Result result = service->configureDockerHeartbeat(
        DockerHeartbeatConfiguration{url, "docker-1", secret, interval}.encodeXml());
    settle();
    return result;
  }
  void settle() const { service->heartbeatManager().drain(); }
  [[nodiscard]] std::size_t beats() const { return heartbeat.transport->requests().size(); }
  [[nodiscard]] DockerHeartbeatStatus status() const {
    return DockerHeartbeatStatus::decode(asStringView(*service->dockerHeartbeatStatusData()));
  }
  [[nodiscard]] bool logged(const std::string& line) const {
    const auto lines = logger.lines();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }

  const TemporaryDirectory temp;
  const fs::path state = temp.path() / "state";
  const fs::path configFile = state / "DockerHeartbeat.plist";
  FakeHeartbeat heartbeat;
  std::shared_ptr<RecordingTools> tools = std::make_shared<RecordingTools>();
  std::shared_ptr<FakeVault> vault = std::make_shared<FakeVault>();
  RecordingLogger logger;
  std::unique_ptr<HelperService> service;
};

TEST_F(MaintenanceTest, EachConfigureBeatsAtOnceAndLeavesOneTimer) {
  EXPECT_EQ(configure("https://unlocker.local/hb", 5), (Result{true, "Docker heartbeat is configured."}));
  EXPECT_EQ(beats(), 1U);
  EXPECT_EQ(heartbeat.timers->lastInterval(), 30s);

  EXPECT_EQ(configure("https://unlocker.local/second", 45.5).success, true);
  EXPECT_EQ(beats(), 2U);
  EXPECT_EQ(heartbeat.timers->liveCount(), 1);
  EXPECT_EQ(heartbeat.timers->lastInterval(), 46s);
  EXPECT_EQ(status(), (DockerHeartbeatStatus{true, "https://unlocker.local/second", "docker-1", 45.5}));

  heartbeat.timers->fire();
  settle();
  ASSERT_EQ(beats(), 3U);
  EXPECT_EQ(heartbeat.transport->requests().back().url, "https://unlocker.local/second");
}

TEST_F(MaintenanceTest, RefusedConfigurationLeavesTheHeartbeatAlone) {
  ASSERT_TRUE(configure("https://unlocker.local/hb", 60).success);
  EXPECT_EQ(
      configure("https://unlocker.local/hb", 60, "too short                 "),
      (Result{
          false,
          "Docker heartbeat configuration is invalid. Heartbeat secret must be at least 24 characters."}));
  EXPECT_EQ(service->configureDockerHeartbeat(toBytes("not a property list")),
            (Result{false, "The data couldn’t be read because it isn’t in the correct format."}));
  settle();
  EXPECT_EQ(beats(), 1U);  // no reload
  EXPECT_EQ(heartbeat.timers->liveCount(), 1);
  EXPECT_EQ(contentOf(configFile).find("too short"), std::string::npos);
}

TEST_F(MaintenanceTest, DisableStopsOnlyWhenTheFileIsGone) {
  EXPECT_EQ(service->disableDockerHeartbeat(), (Result{true, "Docker heartbeat is disabled."}));
  EXPECT_FALSE(fs::exists(state));

  ASSERT_TRUE(configure("https://unlocker.local/hb", 60).success);
  fs::permissions(configFile, fs::perms(0644));
  EXPECT_EQ(service->disableDockerHeartbeat(), (Result{false, kStateFileNotPrivate}));
  settle();
  EXPECT_EQ(heartbeat.timers->liveCount(), 1);
  EXPECT_EQ(status(), DockerHeartbeatStatus{});  // an insecure file reads as none

  fs::permissions(configFile, fs::perms(0600));
  EXPECT_TRUE(service->disableDockerHeartbeat().success);
  settle();
  EXPECT_EQ(heartbeat.timers->liveCount(), 0);
  EXPECT_FALSE(fs::exists(configFile));
}

TEST_F(MaintenanceTest, InsecureConfigurationStopsTheHeartbeatAtTheNextStart) {
  ASSERT_TRUE(configure("https://unlocker.local/hb", 60).success);
  fs::permissions(configFile, fs::perms(0644));
  service->heartbeatManager().reload();
  settle();
  EXPECT_EQ(heartbeat.timers->liveCount(), 0);
  EXPECT_TRUE(logged("Docker heartbeat is disabled: Docker heartbeat configuration is not stored safely. " +
                     kStateFileNotPrivate));

  fs::remove(configFile);
  const std::size_t linesBefore = logger.lines().size();
  service->heartbeatManager().start();
  settle();
  EXPECT_EQ(logger.lines().size(), linesBefore);  // nothing configured is not worth a line
}

TEST_F(MaintenanceTest, BeatOutcomesAreOnlyLogged) {
  const struct {
    DockerHeartbeatOutcome outcome;
    std::string line;  // empty: nothing logged
  } cases[] = {
      {{DockerHeartbeatOutcome::Kind::transportFailed, "Operation timed out after 10000 ms", 0},
       "Docker heartbeat failed: Operation timed out after 10000 ms"},
      {{DockerHeartbeatOutcome::Kind::notHttp, {}, 0}, "Docker heartbeat returned a non-HTTP response."},
      {{DockerHeartbeatOutcome::Kind::httpStatus, {}, 500}, "Docker heartbeat returned HTTP 500."},
      {{DockerHeartbeatOutcome::Kind::httpStatus, {}, 199}, "Docker heartbeat returned HTTP 199."},
      {{DockerHeartbeatOutcome::Kind::httpStatus, {}, 299}, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    heartbeat.transport->outcome = c.outcome;
    const std::size_t linesBefore = logger.lines().size();
    ASSERT_TRUE(configure("https://unlocker.local/hb", 60).success);
    const auto lines = logger.lines();
    if (c.line.empty()) {
      EXPECT_EQ(lines.size(), linesBefore);
    } else {
      ASSERT_EQ(lines.size(), linesBefore + 1);
      EXPECT_EQ(lines.back(), c.line);
    }
    EXPECT_EQ(heartbeat.timers->liveCount(), 1);
  }
}

TEST_F(MaintenanceTest, UnsendableEndpointKeepsTheTimerForTheNextTick) {
  ASSERT_TRUE(configure("http:no-host", 60).success);
  EXPECT_EQ(beats(), 0U);
  EXPECT_EQ(heartbeat.timers->liveCount(), 1);
  EXPECT_TRUE(
      logged("Docker heartbeat request could not be built: Docker heartbeat configuration is invalid. "
             "Use a valid heartbeat URL."));
}

TEST_F(MaintenanceTest, PowerRecoveryReportsPmsetsOwnWords) {
  const struct {
    CommandResult pmset;
    Result expected;
  } cases[] = {
      {{"ignored", "ignored", 0, false}, {true, "Automatic power recovery is enabled."}},
      {{" out \n", "\n must be root \n", 1, false}, {false, "must be root"}},
      {{"\tonly on stdout\n", " \n", 1, false}, {false, "only on stdout"}},
      {{"", "", 3, false}, {false, "pmset failed with exit code 3."}},
      {{"", "", -2, true}, {false, "pmset failed with exit code -2."}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected.message);
    tools->replies["pmset -a"] = c.pmset;
    EXPECT_EQ(service->enableAutomaticPowerRecovery(), c.expected);
    const RecordingTools::Run& run = tools->runs.back();
    EXPECT_EQ(run.tool, "/stand-in/pmset");
    EXPECT_EQ(run.arguments, (std::vector<std::string>{"-a", "autorestart", "1"}));
    EXPECT_EQ(run.input, std::nullopt);
    EXPECT_EQ(run.timeout, 30.0);
  }
}

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

TEST_F(MaintenanceTest, UninstallKeepsADirectoryWithSomethingElseInIt) {
  ASSERT_TRUE(configure("https://unlocker.local/hb", 60).success);
  writeRaw(state / "notes.txt", "mine");
  EXPECT_EQ(service->prepareForUninstall(), (Result{true, "Harborkeeper helper state removed."}));
  EXPECT_FALSE(fs::exists(configFile));
  EXPECT_EQ(contentOf(state / "notes.txt"), "mine");
}

TEST_F(MaintenanceTest, UninstallRefusesAnInsecureDirectoryAfterTheEarlierSteps) {
  fs::create_directory(state);
  fs::permissions(state, fs::perms(0755));
  vault->item = CredentialItem{};
  EXPECT_EQ(service->prepareForUninstall(), (Result{false, kDirectoryNotPrivate}));
  EXPECT_FALSE(vault->item.has_value());  // the credential went first
  EXPECT_TRUE(fs::exists(state));

  fs::permissions(state, fs::perms(0700));
  fs::rename(state, temp.path() / "real");
  fs::create_directory_symlink(temp.path() / "real", state);
  EXPECT_EQ(
      service->prepareForUninstall(),
      (Result{false, "Harborkeeper helper state directory is not private. Symbolic links are not allowed."}));
  EXPECT_TRUE(fs::exists(temp.path() / "real"));
}

}  // namespace
}  // namespace harborkeeper
