#include "core/recovery/interactive_ssh_unlock_runner.h"

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "core/platform/command_runner_test_support.h"
#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using namespace std::chrono_literals;
using Runner = InteractiveSSHUnlockRunner;
using Timing = InteractiveUnlockTiming;

RecoveryProfile profile(std::string fileVaultUser, std::string normalUser = "") {
  RecoveryProfile result;
  result.sshPort = 2222;
  result.fileVaultUsername = std::move(fileVaultUser);
  result.normalSSHUsername = std::move(normalUser);
  return result;
}

// Each stand-in for ssh reads one password and records it next to itself; the
// transcript, which the terminal's echo fills, must not hold it.
TEST(InteractiveSSHUnlockRunnerTest, ConversationWithTheServer) {
  constexpr char kAnswer[] = R"(printf 'Password:'; read -r a; echo "$a" >> "${0%/*}/got"; )";
  const Timing quick{700ms, 50ms, 100ms, 400ms};
  // Waits of up to 10 s: the prompt and the exit must still be noticed at once.
  const Timing patient{5s, 10s, 100ms, 400ms};
  const struct {
    std::string body;
    Timing timing;
    int exitCode;
    double minSeconds, maxSeconds;
  } cases[] = {
      // The second prompt waits for a second password that must never come.
      {std::string(kAnswer) + kAnswer, quick, -2, 0.7, 1.5},
      {R"(printf 'PASSWORD: '; read -r a; echo "$a" >> "${0%/*}/got"; exit 3)", patient, 3, 0, 1.5},
      // Ended once it has said so, with a grace period for SIGTERM that it ignores.
      {"trap '' TERM; " + std::string(kAnswer) + "echo 'System successfully unlocked'; exec /bin/sleep 10",
       quick, SIGKILL, 0.5, 1.5},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body);
    const TemporaryDirectory temp;
    writeRaw(temp.path() / "ssh", "#!/bin/sh\n" + c.body + "\n", fs::perms(0755));
    const auto start = SteadyClock::now();
    const auto result = Runner(temp.path() / "ssh", c.timing)
                            .unlock(profile("admin"), "mac.local", "/dev/null", "pw-Secret-1");
    const double seconds = secondsSince(start);
    EXPECT_EQ(result.exitCode, c.exitCode);
    EXPECT_EQ(result.standardError, c.exitCode == -2 ? "Unlock timed out." : "");
    EXPECT_EQ(contentOf(temp.path() / "got"), "pw-Secret-1\n");
    EXPECT_EQ(result.standardOutput.find("pw-Secret-1"), std::string::npos) << result.standardOutput;
    EXPECT_NE(result.standardOutput.find("[redacted]"), std::string::npos);
    EXPECT_TRUE(seconds >= c.minSeconds && seconds < c.maxSeconds) << seconds << " s";
    EXPECT_TRUE(hasNoChildren());
  }
}

TEST(InteractiveSSHUnlockRunnerTest, SshArguments) {
  const auto joined = [](const std::string& user, const std::string& knownHostsFile) {
    std::string text;  // no argument holds a space
    for (const auto& a : Runner::sshUnlockArguments(profile(user), "h", knownHostsFile)) text += a + " ";
    return text;
  };
  const std::string common =
      "-tt -p 2222 -o BatchMode=no -o NumberOfPasswordPrompts=1 -o "
      "PreferredAuthentications=keyboard-interactive,password -o KbdInteractiveAuthentication=yes -o "
      "PasswordAuthentication=yes -o ConnectTimeout=8 -o ConnectionAttempts=1 -o StrictHostKeyChecking=";
  const std::string tail = " -o GlobalKnownHostsFile=/dev/null Admin@h ";
  EXPECT_EQ(joined(" Admin\n", "/dev/null"), common + "no -o UserKnownHostsFile=/dev/null" + tail);
  EXPECT_EQ(joined("Admin", "/tmp/k"), common + "yes -o UserKnownHostsFile=/tmp/k" + tail);
}

TEST(InteractiveSSHUnlockRunnerTest, FailuresToStartSsh) {
  EXPECT_EQ(Runner("/nonexistent/ssh").unlock(profile("admin"), "h", "/dev/null", "p"),
            (CommandResult{"", "Could not launch /nonexistent/ssh: No such file or directory.", -1, false}));

  // With no descriptor left, not even a pseudo-terminal can be had.
  const int lowestFree = ::dup(STDERR_FILENO);
  ::close(lowestFree);
  rlimit previous{};
  ::getrlimit(RLIMIT_NOFILE, &previous);
  const rlimit exhausted{static_cast<rlim_t>(lowestFree), previous.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &exhausted);
  const auto noTerminal = Runner("/bin/true").unlock(profile("admin"), "h", "/dev/null", "p");
  ::setrlimit(RLIMIT_NOFILE, &previous);
  EXPECT_EQ(noTerminal, (CommandResult{"", "Could not create an interactive SSH session.", -1, false}));
  EXPECT_TRUE(hasNoChildren());
}

TEST(InteractiveSSHUnlockRunnerTest, RedactionOfSecretsNamesAndHost) {
  EXPECT_EQ(Runner::redactionCandidates(
                {" alice\n", "alice", "Bo", " \t", "ALICE", "e\u0301e\u0301", "\xC3\xA9t\xC3\xA9"}),
            (std::vector<std::string>{"alice", "ALICE", "\xC3\xA9t\xC3\xA9"}));
  // The password exactly, user names and host in any case.
  EXPECT_EQ(
      Runner::redactTranscript("Admin@MAC-mini.local's password: S3cret\r\nadmin s3cret, ROOTUSER", "S3cret",
                               profile("admin", "rootuser"), " mac-mini.local "),
      "[redacted-user]@[redacted-host]'s password: [redacted]\r\n[redacted-user] s3cret, [redacted-user]");
  // The password goes first, so a user name inside it leaves nothing behind.
  EXPECT_EQ(Runner::redactTranscript("echo: admin-pw", "admin-pw", profile("admin"), "h"),
            "echo: [redacted]");
}

}  // namespace
}  // namespace harborkeeper
