#include "cli/recovery_output.h"

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/cli_app.h"
#include "core/foundation/json.h"
#include "core/platform/state_file_test_support.h"

namespace harborkeeper::cli {
namespace {

using State = CompanionUnlockState;
using Service = CompanionRecoveryService;
using namespace testing_support;

RecoveryProfile studio() {
  RecoveryProfile profile;
  profile.id = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
  profile.macName = "Studio";
  profile.localHostname = "studio.local";
  profile.fileVaultUsername = "ana";
  profile.notes = "rack 2\nshelf 3";
  return profile;
}

TEST(RecoveryCheckReportTest, StateLineTrustHintAndStatus) {
  const std::string fingerprint = "SHA256:uNiVztksCsDhcc0u9e8BujQXVUpKZIDTMczCvj3tD2s";
  const std::string trust = trustCommand("Studio 2", "/tmp/my profiles.json");
  EXPECT_EQ(trust, "harborkeeper --profiles '/tmp/my profiles.json' profile trust 'Studio 2'");
  EXPECT_EQ(trustCommand("Studio", ""), "harborkeeper profile trust Studio");
  const std::string hint =
      "Host key: " + fingerprint + "\nIf this is the machine you expect, trust it with: " + trust + "\n";
  const std::tuple<CompanionRecoveryCheckResult, std::string, ExitStatus> cases[] = {
      {{State::locked, "FileVault unlock prompt is reachable.", fingerprint},
       "locked: FileVault unlock prompt is reachable.\n",
       ExitStatus::success},
      {{State::offline, "Not reachable.", std::nullopt}, "offline: Not reachable.\n", ExitStatus::success},
      {{State::needsAttention, std::string(Service::hostKeyChangedMessage), fingerprint},
       "needsAttention: " + std::string(Service::hostKeyChangedMessage) + "\n" + hint,
       ExitStatus::failure},
      {{State::needsAttention, std::string(Service::hostKeyFirstUseConfirmationMessage), fingerprint},
       "needsAttention: " + std::string(Service::hostKeyFirstUseConfirmationMessage) + "\n" + hint,
       ExitStatus::failure},
      // Attention for another reason: nothing to trust.
      {{State::needsAttention, "Password rejected.", fingerprint},
       "needsAttention: Password rejected.\n",
       ExitStatus::failure},
  };
  for (const auto& [result, output, status] : cases) {
    SCOPED_TRACE(output);
    EXPECT_EQ(recoveryCheckReport(result, trust, false), (Report{output, "", status}));
    const json::Json asJson = json::parse(recoveryCheckReport(result, trust, true).output);
    EXPECT_EQ(asJson["state"], rawValue(result.state));
    EXPECT_EQ(asJson["message"], result.message);
    EXPECT_EQ(asJson.contains("hostKeyFingerprint"), result.hostKeyFingerprint.has_value());
    EXPECT_EQ(asJson["isReachable"], result.isReachable());
    EXPECT_EQ(asJson["requiresHostKeyConfirmation"], result.requiresHostKeyConfirmation());
  }
}

TEST(RecoveryUnlockReportTest, SucceedsOnlyOnceTheMachineIsBack) {
  for (const State state : allCases<State>()) {
    SCOPED_TRACE(rawValue(state));
    const bool back = state == State::online || state == State::unlocked || state == State::booting;
    EXPECT_EQ(recoveryUnlockReport({state, "m.", std::nullopt}),
              (Report{std::string(rawValue(state)) + ": m.\n", "",
                      back ? ExitStatus::success : ExitStatus::failure}));
  }
  EXPECT_EQ(progressLine(RecoveryStep::probing, 0), "Probing...");
  EXPECT_EQ(progressLine(RecoveryStep::unlocking, 0), "Unlocking...");
  EXPECT_EQ(progressLine(RecoveryStep::waitingForMac, 2), "Waiting for the machine 2/3...");
}

TEST(ProfileReportTest, ListAndShow) {
  RecoveryProfile mini = studio();
  mini.macName = "Mini";
  mini.localHostname = "";
  mini.lastKnownLocalIPs = {"fe80::1"};
  mini.sshPort = 2222;
  mini.hostKeyFingerprint = "SHA256:x";
  mini.hostKeyTrustPolicy = RecoveryHostKeyTrustPolicy::allowUnverifiedLocalNetwork;
  EXPECT_EQ(profileListReport({studio(), mini}, false).output,
            "Studio\tstudio.local:22\tana\tVerify SSH identity\tidentity not captured\n"
            "Mini\t[fe80::1]:2222\tana\tBest effort\tidentity captured\n");
  EXPECT_EQ(profileListReport({}, false), (Report{"", "No profiles.", ExitStatus::success}));
  EXPECT_EQ(json::parse(profileListReport({mini}, true).output),
            json::Json::array({encodeRecoveryProfile(mini)}));
  EXPECT_EQ(json::parse(profileShowReport(mini, true).output), encodeRecoveryProfile(mini));

  mini.wakeOnLANMACAddress = "00:11:22:33:44:55";
  mini.pairedAt = Date(std::chrono::seconds(1'700'000'000));
  EXPECT_EQ(profileShowReport(mini, false).output,
            "Name: Mini\nID: E621E1F8-C36C-495A-93FC-0C247A3E6E5F\nLocal hostname:\nVPN hostname: Not set\n"
            "Recent local IPs: fe80::1\nSSH port: 2222\nConnection: [fe80::1]:2222\nRecovery hosts: fe80::1\n"
            "FileVault user: ana\nNormal SSH user: ana\nHost key: SHA256:x\n"
            "Host key trust: Best effort - " +
                std::string(summary(mini.hostKeyTrustPolicy)) +
                "\nCredential: Ask Every Time - No password saved\n"
                "Listener approval: Automatic Unlock - " +
                std::string(detail(mini.listenerApprovalPolicy)) +
                "\nWake-on-LAN: 00:11:22:33:44:55 (port 9)\nLast reached: Never\n"
                "Paired: 2023-11-14T22:13:20Z\nNotes: rack 2\n  shelf 3\n");
}

TEST(HostKeyOfferTest, ShowsTheSavedKeyOnlyWhenItDiffers) {
  EXPECT_EQ(hostKeyOffer("10.0.0.2", 22, "SHA256:new", "SHA256:old"),
            "Host key of 10.0.0.2:22 is SHA256:new\nSaved host key: SHA256:old\n");
  EXPECT_EQ(hostKeyOffer("fe80::1", 22, "SHA256:new", "SHA256:new"),
            "Host key of [fe80::1]:22 is SHA256:new\n");
}

// Commands that need neither a network nor the daemon, against one profile file.
TEST(ProfileCommandsTest, ArgumentsAreCheckedBeforeTheListChanges) {
  const TemporaryDirectory temporary;
  const std::string file = (temporary.path() / "p" / "profiles.json").string();
  const auto usage = [](const std::string& message) { return "harborkeeper: " + message + "\n"; };
  using Words = std::vector<std::string>;
  const auto add = [](const Words& more) {
    Words words = {"profile", "add", "--name", "Studio", "--user", "ana"};
    words.insert(words.end(), more.begin(), more.end());
    return words;
  };
  const std::string notAnOption = R"(must not be empty or begin with "-")";
  // {arguments after "harborkeeper --profiles FILE", exit status, start of stderr, start of stdout}
  const std::tuple<Words, int, std::string, std::string> cases[] = {
      {{"profile", "list"}, 0, "No profiles.\n", ""},
      {add({"--host", "h", "--port", "0"}), 2, usage("--port: Value 0 not in range 1 to 65535"), ""},
      {add({"--host", "h", "--wol-port", "65536"}), 2,
       usage("--wol-port: Value 65536 not in range 1 to 65535"), ""},
      {add({"--host=-oProxyCommand=x"}), 2, usage("--host: " + notAnOption), ""},
      {add({"--host", " \t"}), 2, usage("--host: " + notAnOption), ""},
      {add({"--host", "h", "--normal-user", " -l"}), 2, usage("--normal-user: " + notAnOption), ""},
      {add({"--host", "h", "--ip", "10.0.0.1", "--ip=-x"}), 2, usage("--ip: " + notAnOption), ""},
      {add({"--host", "h", "--trust", "always"}), 2, usage("--trust: always not in {best-effort,verified}"),
       ""},
      {{"profile", "add", "--name", "S", "--host", "h"}, 2, usage("--user is required"), ""},
      {add({"--host", "studio.local", "--ip", "10.0.0.2", "--port", "2222"}), 0, "",
       "Added profile Studio ("},
      {add({"--host", "other.local"}), 1, usage("A profile named Studio already exists."), ""},
      {{"profile", "trust", "Nope", "--yes"}, 1, usage("No profile named Nope."), ""},
      {{"recovery", "commands", "Studio"}, 0, "", "ssh -p 2222 ana@studio.local\nssh -p 2222 ana@10.0.0.2\n"},
      {{"profile", "list"},
       0,
       "",
       "Studio\tstudio.local:2222\tana\tVerify SSH identity\tidentity not captured\n"},
      {{"profile", "remove", "Studio"}, 0, "", "Removed profile Studio.\n"},
  };
  for (const auto& [arguments, status, err, out] : cases) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    std::vector<const char*> argv = {"harborkeeper", "--profiles", file.c_str()};
    for (const std::string& word : arguments) argv.push_back(word.c_str());
    std::ostringstream output;
    std::ostringstream error;
    EXPECT_EQ(runCli(static_cast<int>(argv.size()), argv.data(), output, error), status);
    EXPECT_THAT(error.str(), testing::StartsWith(err));
    EXPECT_THAT(output.str(), testing::StartsWith(out));
  }
  EXPECT_EQ(contentOf(file), "[]\n");
}

}  // namespace
}  // namespace harborkeeper::cli
