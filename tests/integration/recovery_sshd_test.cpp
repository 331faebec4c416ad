// Recovery against a real sshd that plays a machine at the FileVault SSH
// prompt: what a check concludes, what an unlock types and where, and that
// the password shows up nowhere but on the pseudo-terminal.
#include <unistd.h>

#include <future>
#include <ostream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/foundation/text.h"
#include "core/platform/command_runner_test_support.h"
#include "core/recovery/companion_recovery_service.h"
#include "core/recovery/interactive_ssh_unlock_runner.h"
#include "core/recovery/recovery_profile_store.h"

#include "tests/integration/locked_mac_sshd.h"

namespace harborkeeper {

void PrintTo(const CompanionRecoveryCheckResult& r, std::ostream* os) {
  *os << "{" << rawValue(r.state) << ", \"" << r.message << "\", " << r.hostKeyFingerprint.value_or("no key")
      << (r.isAmbiguousRecoveryCandidate ? ", ambiguous}" : "}");
}

namespace {

using namespace testing_support;
using ::testing::HasSubstr;
using ::testing::Not;
using Result = CompanionRecoveryCheckResult;
using State = CompanionUnlockState;
using Policy = RecoveryHostKeyTrustPolicy;

class RecoverySshdTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: the harness adds local users and runs sshd";
    if (!fs::exists("/usr/sbin/sshd")) GTEST_SKIP() << "needs openssh-server";
  }
};

RecoveryProfile with(RecoveryProfile profile, Policy policy, std::string savedKey, std::string normalUser) {
  profile.hostKeyTrustPolicy = policy;
  profile.hostKeyFingerprint = std::move(savedKey);
  profile.normalSSHUsername = std::move(normalUser);
  return profile;
}

TEST_F(RecoverySshdTest, CheckSeesFirstUseThenLockedThenRunning) {
  LockedMacSshd mac;
  const CommandRunner runner(30);
  const CompanionRecoveryService service(runner);
  const std::string key = mac.hostKeyFingerprint();
  const RecoveryProfile fresh = mac.profile();

  const Result firstUse = service.checkRecoveryState(fresh);
  EXPECT_EQ(firstUse,
            (Result{State::needsAttention,
                    std::string(CompanionRecoveryService::hostKeyFirstUseConfirmationMessage), key}));
  EXPECT_TRUE(firstUse.requiresHostKeyConfirmation());

  const Result locked{State::locked, "FileVault unlock prompt is reachable.", key};
  const Result running{State::online, "Mac is running normally.", key};
  const Result ambiguous{State::locked, std::string(CompanionRecoveryService::ambiguousPasswordPromptMessage),
                         key, true};
  const Result unproven{State::sshReachable,
                        "Mac is reachable, but SSH authentication did not prove FileVault is locked.", key};
  const struct {
    const char* name;
    RecoveryProfile profile;
    Result whenUnlocked;
  } cases[] = {
      {"trusted key", with(fresh, Policy::requireVerifiedHostKey, key, mac.normalUser()), running},
      {"best effort, no saved key", with(fresh, Policy::allowUnverifiedLocalNetwork, "", mac.normalUser()),
       running},
      // Without a normal account only the FileVault user's refusal is left to go by.
      {"trusted key, FileVault user only", with(fresh, Policy::requireVerifiedHostKey, key, ""), unproven},
      {"best effort, FileVault user only", with(fresh, Policy::allowUnverifiedLocalNetwork, "", ""),
       ambiguous},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(service.checkRecoveryState(c.profile), locked);
  }
  ASSERT_TRUE(mac.unlock());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(service.checkRecoveryState(c.profile), c.whenUnlocked);
  }
  EXPECT_EQ(mac.logLines("password for"), 0u);  // checks never authenticate
}

TEST_F(RecoverySshdTest, UnlockTypesThePasswordOnceAndWaitsForTheMac) {
  LockedMacSshd mac;
  const RecordingExecutor runner;
  const CompanionRecoveryService service(runner);
  const std::string key = mac.hostKeyFingerprint();
  const RecoveryProfile profile = with(mac.profile(), Policy::requireVerifiedHostKey, key, mac.normalUser());

  std::vector<std::pair<RecoveryStep, int>> steps;
  ProcessScan scan(mac.password(), "-tt");
  const Result result = service.unlockLockedMac(
      profile, mac.password(), [&](RecoveryStep step, int attempt) { steps.emplace_back(step, attempt); });
  const ProcessScan::Findings findings = scan.finish();

  EXPECT_EQ(result, (Result{State::online, "Mac is back online.", key}));
  EXPECT_TRUE(mac.isUnlocked());
  EXPECT_THAT(steps, ::testing::Contains(std::pair(RecoveryStep::unlocking, 0)));
  EXPECT_THAT(steps, ::testing::Contains(std::pair(RecoveryStep::waitingForMac, 1)));
  EXPECT_THAT(steps, Not(::testing::Contains(std::pair(RecoveryStep::waitingForMac, 2))));
  EXPECT_EQ(mac.logLines("Accepted password for " + mac.fileVaultUser()), 1u) << mac.log();
  EXPECT_EQ(mac.logLines("Failed password"), 0u);

  // Nowhere but on the pseudo-terminal: not in any process's arguments or environment.
  EXPECT_THAT(findings.leaks, ::testing::IsEmpty());
  EXPECT_GE(findings.witnessed, 1u) << "the scan never saw the interactive ssh in " << findings.rounds
                                    << " rounds";
  EXPECT_FALSE(runner.calls().empty());
  for (const ToolCall& call : runner.calls()) {
    SCOPED_TRACE(call.executable);
    for (const std::string& argument : call.arguments) EXPECT_THAT(argument, Not(HasSubstr(mac.password())));
    EXPECT_THAT(call.standardInput.value_or(""), Not(HasSubstr(mac.password())));
  }

  EXPECT_EQ(service.unlockLockedMac(profile, mac.password()),
            (Result{State::online, "Recovery is not needed right now.", key}));
  EXPECT_EQ(mac.logLines("password for"), 1u);
}

TEST_F(RecoverySshdTest, UnlockTranscriptNamesNoPasswordUserOrHost) {
  LockedMacSshd mac;
  const InteractiveSSHUnlockRunner runner;
  const RecoveryProfile profile = mac.profile();
  const struct {
    std::string password;
    std::string notice;
  } cases[] = {
      {"x" + mac.password(), "Permission denied"},
      {mac.password(), "System successfully unlocked."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.notice);
    const CommandResult result = runner.unlock(profile, mac.host(), "/dev/null", c.password);
    EXPECT_FALSE(result.timedOut) << ::testing::PrintToString(result);
    const std::string transcript = result.standardOutput + "\n" + result.standardError;
    EXPECT_THAT(transcript, HasSubstr(c.notice));
    // ssh did print them, and they were replaced.
    EXPECT_THAT(transcript, HasSubstr("[redacted-user]@[redacted-host]'s password:"));
    for (const std::string& secret : {mac.password(), mac.fileVaultUser(), mac.normalUser(), mac.host()}) {
      EXPECT_FALSE(text::containsCaseInsensitive(transcript, secret)) << secret << " in:\n" << transcript;
    }
  }
  EXPECT_TRUE(mac.isUnlocked());
}

TEST_F(RecoverySshdTest, ChangedHostKeyStopsUnlessBestEffort) {
  LockedMacSshd mac;
  const CommandRunner runner(30);
  const CompanionRecoveryService service(runner);
  const std::string oldKey = mac.hostKeyFingerprint();
  mac.restartWithNewHostKey();
  const std::string newKey = mac.hostKeyFingerprint();
  ASSERT_NE(oldKey, newKey);
  const RecoveryProfile trusted =
      with(mac.profile(), Policy::requireVerifiedHostKey, oldKey, mac.normalUser());

  const Result changed{State::needsAttention, std::string(CompanionRecoveryService::hostKeyChangedMessage),
                       newKey};
  const Result result = service.checkRecoveryState(trusted);
  EXPECT_EQ(result, changed);
  EXPECT_TRUE(result.requiresHostKeyConfirmation());
  EXPECT_EQ(service.unlockLockedMac(trusted, mac.password()), changed);
  EXPECT_EQ(mac.logLines("password for"), 0u) << "a password went to a machine whose identity changed";

  const RecoveryProfile bestEffort =
      with(trusted, Policy::allowUnverifiedLocalNetwork, oldKey, mac.normalUser());
  EXPECT_EQ(service.checkRecoveryState(bestEffort),
            (Result{State::locked, "FileVault unlock prompt is reachable.", newKey}));
}

// A check of a host that is not there must end within the tools' own limits
// (key scan 7 s, probe 8 s), never hang.
TEST_F(RecoverySshdTest, UnreachableHostsEndWithinTheToolLimits) {
  const std::string tarpitHost = "127.0.0." + std::to_string(2 + randomLetters(1)[0] - 'a');
  const Tarpit tarpit({tarpitHost});
  const std::uint16_t closedPort = unusedLoopbackPort();
  const CommandRunner runner(30);
  const CompanionRecoveryService service(runner);
  const CompanionReachabilityService reachability(runner);
  const std::string someKey = "SHA256:47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU";
  const Result unverifiable{State::needsAttention, "Could not verify the SSH host key.", std::nullopt};
  const Result refused{State::offline, "Mac is not reachable.", std::nullopt};
  // ssh gives up on the silent server with a message no rule names.
  const Result silent{State::needsAttention, "Mac responded, but the recovery state is unclear.",
                      std::nullopt};
  const struct {
    const char* name;
    std::string host;
    std::uint16_t port;
    bool tcpAnswers;
    Policy policy;
    Result expected;
  } cases[] = {
      {"nothing listening, best effort", "127.0.0.1", closedPort, false, Policy::allowUnverifiedLocalNetwork,
       refused},
      {"nothing listening, saved key", "127.0.0.1", closedPort, false, Policy::requireVerifiedHostKey,
       unverifiable},
      {"tarpit, saved key", tarpitHost, tarpit.port(), true, Policy::requireVerifiedHostKey, unverifiable},
      {"tarpit, best effort", tarpitHost, tarpit.port(), true, Policy::allowUnverifiedLocalNetwork, silent},
  };
  std::vector<std::future<std::pair<Result, double>>> checks;
  for (const auto& c : cases) {
    RecoveryProfile profile;
    profile.localHostname = c.host;
    profile.sshPort = c.port;
    profile.fileVaultUsername = "admin";
    profile.hostKeyTrustPolicy = c.policy;
    profile.hostKeyFingerprint = c.policy == Policy::requireVerifiedHostKey ? someKey : "";
    checks.push_back(std::async(std::launch::async, [&service, profile] {
      const auto start = SteadyClock::now();
      Result result = service.checkRecoveryState(profile);
      return std::pair(result, secondsSince(start));
    }));
  }
  for (std::size_t i = 0; i < checks.size(); ++i) {
    SCOPED_TRACE(cases[i].name);
    const auto [result, seconds] = checks[i].get();
    EXPECT_EQ(result, cases[i].expected);
    EXPECT_LT(seconds, 20.0);
    EXPECT_EQ(reachability.checkSSH(cases[i].host, cases[i].port).isReachable, cases[i].tcpAnswers);
  }
}

// The built CLI over a profile file: exit statuses and the lines that count.
TEST_F(RecoverySshdTest, CliTrustsChecksAndUnlocks) {
  LockedMacSshd mac;
  const TemporaryDirectory dir;
  const std::string profiles = dir.path() / "profiles.json";
  RecoveryProfileStore(profiles).save({mac.profile()});
  const std::string key = mac.hostKeyFingerprint();
  const struct {
    std::vector<std::string> arguments;
    std::optional<std::string> input;
    int exitCode;
    std::string output;
  } steps[] = {
      {{"recovery", "check", "Studio"},
       {},
       1,
       "needsAttention: Confirm this Mac's SSH identity before recovering.\nHost key: " + key},
      {{"profile", "trust", "Studio", "--yes"}, {}, 0, "Trusted the host key of Studio."},
      {{"recovery", "check", "Studio"}, {}, 0, "locked: FileVault unlock prompt is reachable."},
      {{"recovery", "unlock", "Studio", "--password-stdin"},
       "x" + mac.password() + "\n",
       1,
       "needsAttention: The FileVault password was rejected."},
      {{"recovery", "unlock", "Studio", "--password-stdin"},
       mac.password() + "\n",
       0,
       "online: Mac is back online."},
      {{"recovery", "check", "Studio"}, {}, 0, "online: Mac is running normally."},
  };
  const CommandRunner runner(60);
  for (const auto& step : steps) {
    SCOPED_TRACE(step.arguments[1]);
    std::vector<std::string> arguments = step.arguments;
    arguments.insert(arguments.begin(), {"--profiles", profiles});
    const CommandResult result = runner.run(HARBORKEEPER_CLI_BIN, arguments, step.input);
    EXPECT_EQ(result.exitCode, step.exitCode) << ::testing::PrintToString(result);
    EXPECT_THAT(result.standardOutput, HasSubstr(step.output));
  }
  // One attempt for each unlock: the wrong password is not retried.
  EXPECT_EQ(mac.logLines("password for " + mac.fileVaultUser()), 2u) << mac.log();
  EXPECT_EQ(mac.logLines("Failed password for " + mac.fileVaultUser()), 1u);
}

TEST(RecoveryWithoutSshdTest, HostThatReadsAsAnOptionStartsNoTool) {
  const TemporaryDirectory dir;
  const fs::path witness = dir.path() / "proxy-command-ran";
  const RecordingExecutor runner;
  const CompanionRecoveryService service(runner);
  RecoveryProfile profile;
  profile.localHostname = "-oProxyCommand=touch " + witness.string();
  profile.fileVaultUsername = "admin";
  const Result invalid{State::needsAttention, "Invalid hostname.", std::nullopt};
  for (const Policy policy : {Policy::requireVerifiedHostKey, Policy::allowUnverifiedLocalNetwork}) {
    SCOPED_TRACE(rawValue(policy));
    profile.hostKeyTrustPolicy = policy;
    EXPECT_EQ(service.checkRecoveryState(profile), invalid);
    EXPECT_EQ(service.unlockLockedMac(profile, "secret"), invalid);
  }
  EXPECT_TRUE(runner.calls().empty());
  EXPECT_FALSE(fs::exists(witness));
}

}  // namespace
}  // namespace harborkeeper
