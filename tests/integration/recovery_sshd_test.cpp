// Recovery against a real sshd that plays a machine at the FileVault SSH
// prompt: what a check concludes, what an unlock types and where, and that
// the password shows up nowhere but on the pseudo-terminal.
#include <unistd.h>

#include <future>
#include <ostream>
#include <sstream>

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
using Result = CompanionRecoveryCheckResult;
using State = CompanionUnlockState;
using Policy = RecoveryHostKeyTrustPolicy;
using Service = CompanionRecoveryService;

class RecoverySshdTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: the harness adds local users and runs sshd";
    if (!fs::exists("/usr/sbin/sshd")) GTEST_SKIP() << "needs openssh-server";
  }
  const CommandRunner runner_{30};
  const Service service_{runner_};
};

RecoveryProfile with(RecoveryProfile profile, Policy policy, std::string savedKey, std::string normalUser) {
  profile.hostKeyTrustPolicy = policy;
  profile.hostKeyFingerprint = std::move(savedKey);
  profile.normalSSHUsername = std::move(normalUser);
  return profile;
}

// Checks see the prompt without ever authenticating; a wrong password is
// refused, a right one unlocks, and neither transcript names the password, a
// user or the host although ssh printed them.
TEST_F(RecoverySshdTest, ChecksAroundAnUnlockAtThePrompt) {
  LockedMacSshd mac;
  const std::string key = mac.hostKeyFingerprint();
  const RecoveryProfile fresh = mac.profile();
  EXPECT_EQ(service_.checkRecoveryState(fresh),
            (Result{State::needsAttention, std::string(Service::hostKeyFirstUseConfirmationMessage), key}));
  const Result running{State::online, "Mac is running normally.", key};
  const struct {
    const char* name;
    RecoveryProfile profile;
    Result whenUnlocked;
  } cases[] = {
      {"trusted key", with(fresh, Policy::requireVerifiedHostKey, key, mac.normalUser()), running},
      {"best effort, no saved key", with(fresh, Policy::allowUnverifiedLocalNetwork, "", mac.normalUser()),
       running},
      // Without a normal account only the FileVault user's refusal is left to go by.
      {"trusted key, FileVault user only",
       with(fresh, Policy::requireVerifiedHostKey, key, ""),
       {State::sshReachable, "Mac is reachable, but SSH authentication did not prove FileVault is locked.",
        key}},
      {"best effort, FileVault user only",
       with(fresh, Policy::allowUnverifiedLocalNetwork, "", ""),
       {State::locked, std::string(Service::ambiguousPasswordPromptMessage), key, true}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(service_.checkRecoveryState(c.profile),
              (Result{State::locked, "FileVault unlock prompt is reachable.", key}));
  }
  EXPECT_EQ(mac.logLines("password for"), 0u);

  for (const auto& [password, notice] :
       {std::pair<std::string, std::string>{"x" + mac.password(), "Permission denied"},
        {mac.password(), "System successfully unlocked."}}) {
    SCOPED_TRACE(notice);
    const auto result = InteractiveSSHUnlockRunner().unlock(fresh, mac.host(), "/dev/null", password);
    const std::string transcript = result.standardOutput + "\n" + result.standardError;
    EXPECT_THAT(transcript, HasSubstr(notice));
    EXPECT_THAT(transcript, HasSubstr("[redacted-user]@[redacted-host]'s password:"));
    for (const std::string& secret : {mac.password(), mac.fileVaultUser(), mac.normalUser(), mac.host()}) {
      EXPECT_FALSE(text::containsCaseInsensitive(transcript, secret)) << secret << " in:\n" << transcript;
    }
  }
  ASSERT_TRUE(eventually([&] { return mac.isUnlocked(); }));
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(service_.checkRecoveryState(c.profile), c.whenUnlocked);
  }
}

// A check of a host that is not there must end within the tools' own limits
// (key scan 7 s, probe 8 s), never hang.
TEST_F(RecoverySshdTest, UnreachableHostsEndWithinTheToolLimits) {
  const std::string tarpitHost = "127.0.0." + std::to_string(2 + randomLetters(1)[0] - 'a');
  const std::uint16_t port = unusedLoopbackPort();  // closed on 127.0.0.1
  const Tarpit tarpit({tarpitHost}, port);
  const Policy strict = Policy::requireVerifiedHostKey;
  const Policy best = Policy::allowUnverifiedLocalNetwork;
  const struct {
    std::string host;
    Policy policy;
    Result expected;
  } cases[] = {
      {"127.0.0.1", best, {State::offline, "Mac is not reachable.", {}}},
      {tarpitHost, strict, {State::needsAttention, "Could not verify the SSH host key.", {}}},
      // ssh gives up on the silent server with a message no rule names.
      {tarpitHost, best, {State::needsAttention, "Mac responded, but the recovery state is unclear.", {}}},
  };
  const auto deadline = SteadyClock::now() + 20s;
  std::vector<std::future<Result>> checks;
  for (const auto& c : cases) {
    RecoveryProfile profile = with(
        {}, c.policy, c.policy == strict ? "SHA256:47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU" : "", "");
    profile.localHostname = c.host;
    profile.sshPort = port;
    profile.fileVaultUsername = "admin";
    checks.push_back(
        std::async(std::launch::async, [this, profile] { return service_.checkRecoveryState(profile); }));
  }
  const CompanionReachabilityService reachability(runner_);
  for (std::size_t i = 0; i < checks.size(); ++i) {
    SCOPED_TRACE(cases[i].expected.message);
    ASSERT_EQ(checks[i].wait_until(deadline), std::future_status::ready);
    EXPECT_EQ(checks[i].get(), cases[i].expected);
    EXPECT_EQ(reachability.checkSSH(cases[i].host, port).isReachable, cases[i].host == tarpitHost);
  }
}

// The built CLI over a profile file: exit statuses, the lines that count, one
// password attempt for each unlock, the password in no process's arguments or
// environment, and none sent once the host key has changed.
TEST_F(RecoverySshdTest, CliTrustsChecksAndUnlocks) {
  LockedMacSshd mac;
  const TemporaryDirectory dir;
  const std::string profiles = dir.path() / "profiles.json";
  RecoveryProfileStore(profiles).save({mac.profile()});
  const std::string unlock = "recovery unlock Studio --password-stdin";
  const struct {
    std::string command;  // split at spaces
    std::optional<std::string> input;
    std::string output;
    int exitCode;
    bool newHostKeyFirst = false;
  } steps[] = {
      {"recovery check Studio",
       {},
       "needsAttention: Confirm this Mac's SSH identity before recovering.\nHost key: " +
           mac.hostKeyFingerprint(),
       1},
      {"profile trust Studio --yes", {}, "Trusted the host key of Studio.", 0},
      {"recovery check Studio", {}, "locked: FileVault unlock prompt is reachable.", 0},
      {unlock, "x" + mac.password() + "\n", "needsAttention: The FileVault password was rejected.", 1},
      {unlock, mac.password() + "\n", "online: Mac is back online.", 0},
      {unlock, mac.password() + "\n", "online: Recovery is not needed right now.", 0},
      // A changed identity stops the unlock before any password is sent.
      {unlock, mac.password() + "\n", "needsAttention: " + std::string(Service::hostKeyChangedMessage), 1,
       true},
  };
  const CommandRunner runner(60);
  std::size_t witnessed = 0;
  for (const auto& step : steps) {
    SCOPED_TRACE(step.output);
    if (step.newHostKeyFirst) mac.restartWithNewHostKey();
    std::vector<std::string> arguments = {"--profiles", profiles};
    std::istringstream words(step.command);
    for (std::string word; words >> word;) arguments.push_back(word);
    ProcessScan scan(mac.password(), "-tt");
    const CommandResult result = runner.run(HARBORKEEPER_CLI_BIN, arguments, step.input);
    EXPECT_EQ(result.exitCode, step.exitCode) << ::testing::PrintToString(result);
    EXPECT_THAT(result.standardOutput, HasSubstr(step.output));
    const ProcessScan::Findings findings = scan.finish();
    EXPECT_THAT(findings.leaks, ::testing::IsEmpty());
    witnessed += findings.witnessed.size();
  }
  EXPECT_GE(witnessed, 1u) << "the scans never saw the interactive ssh";
  EXPECT_EQ(mac.logLines("password for " + mac.fileVaultUser()), 2u) << mac.log();
  EXPECT_EQ(mac.logLines("Failed password for " + mac.fileVaultUser()), 1u);
}

}  // namespace
}  // namespace harborkeeper
