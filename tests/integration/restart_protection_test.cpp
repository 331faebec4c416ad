// Restart protection end to end: the real daemon as root with real PAM against
// a throwaway local user, real systemd-creds sealing, a stand-in fdesetup that
// checks what it is handed, and the real CLI.
#include <signal.h>
#include <unistd.h>

#include <sstream>

#include <gtest/gtest.h>

#include "core/foundation/json.h"
#include "core/foundation/plist.h"
#include "core/protection/protection_status.h"

#include "tests/integration/daemon_harness.h"
#include "tests/integration/throwaway_user.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using Result = ipc::HelperCommandResult;

constexpr std::string_view kArmed = "Harborkeeper armed authenticated restart for the next restart.";
constexpr std::string_view kEnabled = "Persistent protection is enabled and the next restart is armed.";
constexpr std::string_view kRejected = "The selected user's password was rejected.";
constexpr std::string_view kCredentialName = "--name=com.lumaq.Harborkeeper.PersistentCredential";

// Every character a careless quoting or escaping step would mangle, around a
// core of random letters that the leak scans look for.
std::string awkwardPassword(const std::string& core, bool withNewline) {
  return "  " + core + " '\"`\\&<>\u00e9\u00df\u00fc" + (withNewline ? "\nline two " : " ");
}

class ProtectionDaemonTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    if (IsSkipped()) return;
    user = std::make_unique<ThrowawayUser>(password);
    startDaemon();
  }

  void startDaemon(const std::string& pamDirectory = HARBORKEEPER_PAM_DIR) {
    daemon = std::make_unique<Daemon>("fdesetup_standin.py", std::vector<std::string>{},
                                      std::vector<std::string>{"--pam-dir", pamDirectory});
    writeRaw(tools() / "list.out", user->name() + ",2F1C3B5A-0000-4000-8000-000000000001\n", fs::perms(0644));
  }
  [[nodiscard]] fs::path tools() const { return daemon->dir / "tools"; }
  [[nodiscard]] fs::path state() const { return daemon->dir / "state"; }
  [[nodiscard]] fs::path sealed() const { return state() / "PersistentCredential.cred"; }

  // What the stand-in fdesetup's authrestart accepted, one document per run.
  [[nodiscard]] std::vector<json::Json> armedWith() const {
    std::vector<json::Json> documents;
    std::istringstream lines(contentOf(tools() / "authrestart.received"));
    for (std::string line; std::getline(lines, line);) documents.push_back(json::parse(line));
    return documents;
  }
  [[nodiscard]] static json::Json document(const std::string& username, const std::string& typed) {
    return {{"Password", typed}, {"Username", username}};
  }
  [[nodiscard]] std::optional<HelperProtectionStatus> status() const {
    if (!fs::exists(state() / "ProtectionStatus.plist")) return std::nullopt;
    return HelperProtectionStatus::decode(contentOf(state() / "ProtectionStatus.plist"));
  }
  // The sealed item, unsealed by the real tool.
  [[nodiscard]] plist::Value unsealed() const {
    const CommandResult opened = CommandRunner(30).run(
        "/usr/bin/systemd-creds", {"decrypt", std::string(kCredentialName), sealed(), "-"});
    EXPECT_EQ(opened.exitCode, 0) << opened.standardError;
    return plist::decode(opened.standardOutput);
  }
  Result enable(const std::string& typed) const {
    return daemon->client()->enablePersistentProtection(user->name(), typed, Date());
  }

  // Nothing the daemon wrote, logged or handed to a tool's arguments or environment holds the password.
  void expectNoLeak(const std::vector<std::string>& alsoScanned = {}) const {
    std::vector<std::pair<std::string, std::string>> places{
        {"daemon log", daemon->log()},
        {"fdesetup arguments", contentOf(tools() / "invocations.log")},
        {"fdesetup environments", contentOf(tools() / "environment.log")},
    };
    for (const auto& entry : fs::directory_iterator(state())) {
      if (entry.is_regular_file()) places.emplace_back(entry.path().filename(), contentOf(entry.path()));
    }
    for (const std::string& text : alsoScanned) places.emplace_back("command output", text);
    for (const auto& [place, text] : places) EXPECT_EQ(text.find(core), std::string::npos) << place;
    std::istringstream environments(contentOf(tools() / "environment.log"));
    for (std::string line; std::getline(environments, line);) EXPECT_EQ(line, "[]");
  }

  const std::string core = randomLetters(14);
  const std::string password = awkwardPassword(core, false);
  std::unique_ptr<ThrowawayUser> user;
  std::unique_ptr<Daemon> daemon;
};

TEST_F(ProtectionDaemonTest, OneTimeArmingChecksThePasswordBeforeArming) {
  std::vector<std::string> outputs;
  const auto arm = [&](const std::string& name, const std::string& typed) {
    CliOutcome outcome = daemon->cli({"arm", "--user", name, "--password-stdin"}, builtCli(), typed + "\n");
    outputs.push_back(std::get<1>(outcome) + std::get<2>(outcome));
    return outcome;
  };
  EXPECT_EQ(arm(user->name(), password + "x"), CliOutcome(1, "", "harborkeeper: " + std::string(kRejected)));
  EXPECT_EQ(status()->message, kRejected);
  EXPECT_TRUE(armedWith().empty()) << "armed before the checks passed";

  EXPECT_EQ(arm("  " + user->name() + " ", password), CliOutcome(0, std::string(kArmed), ""));
  EXPECT_EQ(armedWith(), std::vector{document(user->name(), password)});
  const json::Json shown = json::parse(std::get<1>(daemon->cli({"status", "--json"})));
  EXPECT_EQ(shown["mode"], "nextRestart");
  EXPECT_EQ(shown["succeeded"], true);
  EXPECT_EQ(shown["message"], kArmed);
  expectNoLeak(outputs);
}

// Enable, re-arm at every start, a changed password, disable: the whole life of
// the sealed credential, with a password that only a program could type.
TEST_F(ProtectionDaemonTest, PersistentProtectionFromEnableToDisable) {
  const std::string typed = awkwardPassword(core, true);
  user->changePassword(typed);
  EXPECT_EQ(enable(typed), (Result{true, std::string(kEnabled)}));
  EXPECT_EQ(modeOf(sealed()), 0600U);
  EXPECT_EQ(contentOf(sealed()).find(core), std::string::npos);
  const plist::Value item = unsealed();
  EXPECT_EQ(plist::requireString(plist::asDictionary(item), "account"), user->name());
  EXPECT_EQ(plist::requireData(plist::asDictionary(item), "password"), toBytes(typed));

  daemon->restart();
  EXPECT_TRUE(eventually([&] {
    return daemon->logLines("Startup persistent authenticated restart rearm succeeded.") == 1;
  })) << daemon->log();
  EXPECT_EQ(armedWith(), std::vector(2, document(user->name(), typed)));
  EXPECT_EQ(status(), (HelperProtectionStatus{HelperProtectionMode::persistent, true, status()->armedAt,
                                              std::string(kArmed)}));

  user->changePassword(password);
  daemon->restart();
  EXPECT_TRUE(eventually([&] {
    return daemon->logLines("Startup persistent authenticated restart rearm failed: " +
                            std::string(kRejected)) == 1;
  })) << daemon->log();
  EXPECT_FALSE(fs::exists(sealed()));
  EXPECT_EQ(status(), (HelperProtectionStatus{HelperProtectionMode::persistent, false, status()->armedAt,
                                              std::string(kRejected)}));
  const CliOutcome shown = daemon->cli({"status"});
  EXPECT_EQ(std::get<1>(shown).substr(0, std::get<1>(shown).find('\n')), "Needs password update");

  EXPECT_EQ(enable(password), (Result{true, std::string(kEnabled)}));
  EXPECT_EQ(std::get<0>(daemon->cli({"persistent", "disable"})), 0);
  EXPECT_FALSE(fs::exists(sealed()));
  EXPECT_FALSE(status());
  const std::string nothingStored =
      "Startup persistent authenticated restart rearm failed: No persistent Harborkeeper credential is "
      "stored.";
  const std::size_t launchesWithNothing = daemon->logLines(nothingStored);
  daemon->restart();
  EXPECT_TRUE(eventually([&] { return daemon->logLines(nothingStored) == launchesWithNothing + 1; }));
  EXPECT_FALSE(status()) << "a launch with nothing enabled writes nothing";
  expectNoLeak({std::get<1>(shown), std::get<2>(shown)});
}

// A sealed file of another owner is refused and kept, and the daemon keeps
// serving. Files that do not unseal are fault_injection_test's; other unsafe
// files, and a missing systemd-creds, are the vault's unit tests'.
TEST_F(ProtectionDaemonTest, ASealedFileOfAnotherOwnerIsRefusedAndKept) {
  ASSERT_EQ(enable(password), (Result{true, std::string(kEnabled)}));
  ASSERT_EQ(::chown(sealed().c_str(), 65534, 65534), 0);
  const std::string message =
      "The stored credential could not be read from the System Keychain. OSStatus -36.";
  EXPECT_EQ(daemon->cli({"persistent", "arm"}), CliOutcome(1, "", "harborkeeper: " + message));
  EXPECT_EQ(status()->message, message);
  EXPECT_TRUE(fs::exists(sealed())) << "kept for a later attempt";
  EXPECT_EQ(daemon->cli({"version"}), CliOutcome(0, "1.3", ""));
  expectNoLeak();
}

TEST_F(ProtectionDaemonTest, WithoutItsPamServiceEveryPasswordIsRejected) {
  daemon->stop(SIGTERM);
  const TemporaryDirectory noPam;
  startDaemon(noPam.path());
  EXPECT_EQ(daemon->cli({"arm", "--user", user->name(), "--password-stdin"}, builtCli(), password + "\n"),
            CliOutcome(1, "", "harborkeeper: " + std::string(kRejected)));
  EXPECT_EQ(status()->message, kRejected);
  EXPECT_TRUE(armedWith().empty());
}

}  // namespace
}  // namespace harborkeeper
