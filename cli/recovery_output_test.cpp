#include "cli/recovery_output.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/cli_app.h"
#include "cli/cli_test_support.h"
#include "core/platform/state_file_test_support.h"

namespace harborkeeper::cli {
namespace {

using State = CompanionUnlockState;
using testing::HasSubstr;

TEST(RecoveryReportTest, CheckOffersTheTrustCommandOnlyForAKeyToConfirm) {
  const std::string trust = trustCommand("Studio 2", "/tmp/my profiles.json");
  EXPECT_EQ(trust, "harborkeeper --profiles '/tmp/my profiles.json' profile trust 'Studio 2'");
  EXPECT_EQ(trustCommand("Studio", ""), "harborkeeper profile trust Studio");
  const std::string changed(CompanionRecoveryService::hostKeyChangedMessage);
  const CompanionRecoveryCheckResult toConfirm{State::needsAttention, changed, "SHA256:k"};
  // recovery_sshd_test proves the plain lines and exit statuses through the CLI.
  EXPECT_EQ(recoveryCheckReport(toConfirm, trust, false).output,
            "needsAttention: " + changed +
                "\nHost key: SHA256:k\nIf this is the machine you expect, trust it with: " + trust + "\n");
  const json::Json asJson = json::parse(recoveryCheckReport(toConfirm, trust, true).output);
  EXPECT_EQ(
      std::tuple(asJson["message"], asJson["hostKeyFingerprint"], asJson["requiresHostKeyConfirmation"]),
      std::tuple(changed, "SHA256:k", true));
  // An unlock succeeds only once the machine is back.
  for (const State state : allCases<State>()) {
    SCOPED_TRACE(rawValue(state));
    EXPECT_EQ(recoveryUnlockReport({state, "m.", std::nullopt}).status == ExitStatus::success,
              state == State::online || state == State::unlocked || state == State::booting);
  }
  EXPECT_EQ(progressLine(RecoveryStep::waitingForMac, 2), "Waiting for the machine 2/3...");
}

TEST(ProfileReportTest, ListShowAndHostKeyOffer) {
  RecoveryProfile mini;
  mini.macName = "Mini";
  mini.fileVaultUsername = "ana";
  mini.lastKnownLocalIPs = {"fe80::1"};
  mini.sshPort = 2222;
  mini.notes = "rack 2\nshelf 3";
  EXPECT_EQ(profileListReport({mini}, false).output,
            "Mini\t[fe80::1]:2222\tana\tVerify SSH identity\tidentity not captured\n");
  EXPECT_EQ(profileListReport({}, false), (Report{"", "No profiles.", ExitStatus::success}));
  EXPECT_THAT(
      profileShowReport(mini, false).output,
      testing::AllOf(HasSubstr("\nConnection: [fe80::1]:2222\n"), HasSubstr("\nNotes: rack 2\n  shelf 3\n")));
  EXPECT_EQ(hostKeyOffer("fe80::1", 22, "SHA256:new", "SHA256:old"),
            "Host key of [fe80::1]:22 is SHA256:new\nSaved host key: SHA256:old\n");
  EXPECT_EQ(hostKeyOffer("h", 22, "SHA256:new", "SHA256:new"), "Host key of h:22 is SHA256:new\n");
}

// Commands that need neither a network nor the daemon, against one profile file.
TEST(ProfileCommandsTest, ArgumentsAreCheckedBeforeTheListChanges) {
  const testing_support::TemporaryDirectory temporary;
  const std::string file = (temporary.path() / "p" / "profiles.json").string();
  // {arguments after "harborkeeper --profiles FILE", exit status, start of stdout or of the error}
  const std::string notAnOption = R"(--host: must not be empty or begin with "-")";
  const std::tuple<std::vector<const char*>, int, std::string> cases[] = {
      {{"profile", "add", "--name=S", "--user=a", "--host=-oX"}, 2, notAnOption},
      {{"profile", "add", "--name=S", "--user=a", "--host=s.local", "--port=2222"}, 0, "Added profile S ("},
      {{"profile", "add", "--name=S", "--user=a", "--host=o.local"}, 1, "A profile named S already exists."},
      {{"recovery", "commands", "S"}, 0, "ssh -p 2222 a@s.local\n"},
      {{"profile", "remove", "S"}, 0, "Removed profile S.\n"},
  };
  for (auto [arguments, status, expected] : cases) {
    SCOPED_TRACE(expected);
    arguments.insert(arguments.begin(), {"--profiles", file.c_str()});
    const testing_support::CliRun result = testing_support::run(arguments);
    EXPECT_EQ(result.status, status);
    EXPECT_THAT(status == 0 ? result.out : result.err,
                testing::StartsWith(status == 0 ? expected : "harborkeeper: " + expected + "\n"));
  }
  EXPECT_EQ(testing_support::contentOf(file), "[]\n");
}

}  // namespace
}  // namespace harborkeeper::cli
