#include "core/protection/auth_restart.h"

#include <memory>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "core/foundation/plist.h"
#include "core/platform/command_runner_test_support.h"

namespace harborkeeper {
namespace {

using testing_support::RecordingTools;

TEST(AuthRestartFailureSanitizerTest, Table) {
  // output, user name, password, expected
  const std::tuple<std::string, std::string, std::string, std::string> cases[] = {
      // Longest first: the user's replacement never eats the start of the password.
      {"bad ann / annex", "ann", "annex", "bad [user] / [password]"},
      {"ANNEX Annex annex", "ann", "annex", "[password] [password] [password]"},
      {"<key>Password</key><string>a&amp;b&lt;c</string>", "bob", "a&b<c",
       "<key>Password</key><string>[password]</string>"},
      {"a&b<c and a&amp;b&lt;c", "bob", "a&b<c", "[password] and [password]"},
      {"it&apos;s &quot;q&quot; / it's \"q\"", "bob", "it's \"q\"", "[password] / [password]"},
      {"Ünïcødé ÜNÏCØDÉ", "bob", "ünïcødé", "[password] [password]"},
      // An empty value is no token; general secrets go last.
      {"alice: token: abc", "alice", "", "[user]: token: [redacted]"},
      {"nothing to hide", "", "", "nothing to hide"},
  };
  for (const auto& [output, username, password, expected] : cases) {
    SCOPED_TRACE(output);
    EXPECT_EQ(AuthRestartFailureSanitizer::sanitize(output, username, password), expected);
  }
}

struct AuthRestartRunnerTest : testing::Test {
  std::shared_ptr<RecordingTools> tools = std::make_shared<RecordingTools>();
  AuthRestartRunner runner{tools, "/stand-in/fdesetup", 110.0};
};

// What fdesetup is handed (arguments, the trimmed name and the password as
// typed, only in the document on standard input) is checked by the stand-in
// fdesetup of restart_protection_test.
TEST_F(AuthRestartRunnerTest, WarningsDoNotFailAnArmingThatExitedZero) {
  tools->replies["fdesetup authrestart"] = {"", "warning on stderr", 0, false};
  EXPECT_EQ(
      runner.armNextRestart("alice", "pw"),
      (ipc::HelperCommandResult{true, "Harborkeeper armed authenticated restart for the next restart."}));
  EXPECT_EQ(tools->runs.at(0).timeout, 110.0);
}

TEST_F(AuthRestartRunnerTest, Failures) {
  // stdout, stderr, exit code, user name, password, expected message
  const std::tuple<std::string, std::string, int, std::string, std::string, std::string> cases[] = {
      {"", "", 0, " \n", "pw", "Choose a FileVault user."},
      {"", "", 0, "alice", "", "Enter the selected user's password."},
      {"", "", -2, "alice", "pw", "fdesetup authrestart failed with exit code -2."},
      {"Error for alice", "wrong PW-Secret1", 1, " alice", "pw-secret1", "Error for [user] wrong [password]"},
      {"", "Error: a&amp;b rejected", 14, "alice", "a&b", "Error: [password] rejected"},
  };
  for (const auto& [out, err, exitCode, username, password, expected] : cases) {
    SCOPED_TRACE(expected);
    tools->replies["fdesetup authrestart"] = {out, err, exitCode, false};
    EXPECT_EQ(runner.armNextRestart(username, password), (ipc::HelperCommandResult{false, expected}));
  }
  // The two refusals ran nothing.
  EXPECT_EQ(tools->runs.size(), std::size(cases) - 2);
}

// A password no property list can hold is refused with the encoder's text.
TEST_F(AuthRestartRunnerTest, UnencodablePasswordIsRefusedWithoutRunningTheTool) {
  const auto result = runner.armNextRestart("alice", std::string("a\0b", 3));
  EXPECT_EQ(result, (ipc::HelperCommandResult{false, plist::EncodeError::invalidValue().what()}));
  EXPECT_TRUE(tools->runs.empty());
}

}  // namespace
}  // namespace harborkeeper
