#include "core/recovery/interactive_ssh_unlock_runner.h"

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core/platform/command_runner_test_support.h"
#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using namespace std::chrono_literals;
using Timing = InteractiveUnlockTiming;

constexpr char kPassword[] = "pw-Secret-1";

RecoveryProfile profile(std::string fileVaultUser, std::string normalUser = "") {
  RecoveryProfile result;
  result.sshPort = 2222;
  result.fileVaultUsername = std::move(fileVaultUser);
  result.normalSSHUsername = std::move(normalUser);
  return result;
}

// A stand-in for ssh. It runs with an empty environment, so "@DIR@" in its
// body is replaced by the directory it may record things in.
std::string writeStandIn(const fs::path& dir, std::string body) {
  for (auto at = body.find("@DIR@"); at != std::string::npos; at = body.find("@DIR@")) {
    body.replace(at, 5, dir.string());
  }
  const fs::path path = dir / "ssh";
  writeRaw(path, "#!/bin/sh\n" + body + "\n", fs::perms(0755));
  return path;
}

TEST(InteractiveSSHUnlockRunnerTest, ConversationWithTheServer) {
  constexpr char kAnswer[] = R"(printf 'Password:'; read -r a; echo "$a" >> @DIR@/got; )";
  struct Case {
    const char* name;
    std::string body;
    Timing timing;
    int exitCode;
    std::string received;
    double minSeconds;
    double maxSeconds;
  };
  const Timing quick{700ms, 50ms, 100ms, 400ms};
  // Waits of up to 10 s: the prompt and the exit must still be noticed at once.
  const Timing patient{5s, 10s, 100ms, 400ms};
  const std::string unlocked =
      std::string(kAnswer) + "echo 'System successfully unlocked'; exec /bin/sleep 10";
  const Case cases[] = {
      // The second prompt waits for a second password that must never come.
      {"prompt twice", std::string(kAnswer) + kAnswer, quick, -2, "pw-Secret-1\n", 0.7, 1.5},
      {"prompt in capitals", R"(printf 'PASSWORD: '; read -r a; echo "$a" >> @DIR@/got; exit 3)", patient, 3,
       "pw-Secret-1\n", 0, 1.5},
      {"unlocked, then keeps running", unlocked, quick, SIGTERM, "pw-Secret-1\n", 0.1, 1.0},
      {"unlocked, then ignores SIGTERM", "trap '' TERM; " + unlocked, quick, SIGKILL, "pw-Secret-1\n", 0.5,
       1.5},
      {"silence", "exec /bin/sleep 10", {300ms, 50ms, 100ms, 400ms}, -2, "", 0.3, 1.0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const TemporaryDirectory temp;
    const InteractiveSSHUnlockRunner runner(writeStandIn(temp.path(), c.body), c.timing);
    const auto start = SteadyClock::now();
    const auto result = runner.unlock(profile("admin"), "mac.local", "/dev/null", kPassword);
    const double seconds = secondsSince(start);
    EXPECT_EQ(result.exitCode, c.exitCode);
    EXPECT_EQ(result.timedOut, c.exitCode == -2);
    EXPECT_EQ(result.standardError, c.exitCode == -2 ? "Unlock timed out." : "");
    EXPECT_EQ(contentOf(temp.path() / "got"), c.received);
    // The terminal echoes what the stand-in reads; the transcript must not.
    EXPECT_EQ(result.standardOutput.find(kPassword), std::string::npos) << result.standardOutput;
    if (!c.received.empty()) {
      EXPECT_NE(result.standardOutput.find("[redacted]"), std::string::npos);
    }
    EXPECT_GE(seconds, c.minSeconds);
    EXPECT_LT(seconds, c.maxSeconds);
    EXPECT_TRUE(hasNoChildren());
  }
}

TEST(InteractiveSSHUnlockRunnerTest, SshGetsExactlyItsArguments) {
  const TemporaryDirectory temp;
  const std::string ssh =
      writeStandIn(temp.path(), R"(for a in "$@"; do printf '%s\n' "$a"; done > @DIR@/args)");
  const auto result =
      InteractiveSSHUnlockRunner(ssh).unlock(profile(" Admin\n"), "10.0.0.7", "/dev/null", "p");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(
      contentOf(temp.path() / "args"),
      "-tt\n-p\n2222\n-o\nBatchMode=no\n-o\nNumberOfPasswordPrompts=1\n"
      "-o\nPreferredAuthentications=keyboard-interactive,password\n-o\nKbdInteractiveAuthentication=yes\n"
      "-o\nPasswordAuthentication=yes\n-o\nConnectTimeout=8\n-o\nConnectionAttempts=1\n"
      "-o\nStrictHostKeyChecking=no\n-o\nUserKnownHostsFile=/dev/null\n-o\nGlobalKnownHostsFile=/dev/null\n"
      "Admin@10.0.0.7\n");

  const auto checked =
      InteractiveSSHUnlockRunner::sshUnlockArguments(profile("Admin"), "h", "/tmp/known hosts");
  ASSERT_EQ(checked.size(), 24U);
  EXPECT_EQ(checked[18], "StrictHostKeyChecking=yes");
  EXPECT_EQ(checked[20], "UserKnownHostsFile=/tmp/known hosts");
}

TEST(InteractiveSSHUnlockRunnerTest, FailuresToStartSsh) {
  const TemporaryDirectory temp;
  const std::string plain = temp.path() / "plain";
  writeRaw(plain, "#!/bin/sh\n", fs::perms(0644));
  const std::pair<std::string, std::string> cases[] = {
      {"/nonexistent/ssh", "Could not launch /nonexistent/ssh: No such file or directory."},
      {plain, "Could not launch " + plain + ": Permission denied."},
  };
  for (const auto& [path, error] : cases) {
    EXPECT_EQ(InteractiveSSHUnlockRunner(path).unlock(profile("admin"), "h", "/dev/null", "p"),
              (CommandResult{"", error, -1, false}));
  }

  // With no descriptor left, not even a pseudo-terminal can be had.
  const int lowestFree = ::dup(STDERR_FILENO);
  ::close(lowestFree);
  rlimit previous{};
  ::getrlimit(RLIMIT_NOFILE, &previous);
  rlimit exhausted = previous;
  exhausted.rlim_cur = static_cast<rlim_t>(lowestFree);
  ::setrlimit(RLIMIT_NOFILE, &exhausted);
  const auto noTerminal =
      InteractiveSSHUnlockRunner("/bin/true").unlock(profile("admin"), "h", "/dev/null", "p");
  ::setrlimit(RLIMIT_NOFILE, &previous);
  EXPECT_EQ(noTerminal, (CommandResult{"", "Could not create an interactive SSH session.", -1, false}));
  EXPECT_TRUE(hasNoChildren());
}

TEST(InteractiveSSHUnlockRunnerTest, RedactionOfSecretsNamesAndHost) {
  EXPECT_EQ(InteractiveSSHUnlockRunner::redactionCandidates(
                {" alice\n", "alice", "Bo", " \t", "ALICE", "e\u0301e\u0301", "\xC3\xA9t\xC3\xA9"}),
            (std::vector<std::string>{"alice", "ALICE", "\xC3\xA9t\xC3\xA9"}));

  struct Case {
    const char* transcript;
    const char* password;
    RecoveryProfile profile;
    const char* expected;
  };
  const Case cases[] = {
      {"Admin@MAC-mini.local's password: S3cret\r\nadmin s3cret", "S3cret", profile("admin"),
       "[redacted-user]@[redacted-host]'s password: [redacted]\r\n[redacted-user] s3cret"},
      // The password goes first, so a user name inside it leaves nothing behind.
      {"echo: admin-pw", "admin-pw", profile("admin"), "echo: [redacted]"},
      {"bo@mac-mini.local: BO, jo", "", profile("bo", " jo "), "bo@[redacted-host]: BO, jo"},
      {"Welcome ROOTUSER and staff", "", profile("  staff", "rootuser"),
       "Welcome [redacted-user] and [redacted-user]"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(
        InteractiveSSHUnlockRunner::redactTranscript(c.transcript, c.password, c.profile, " mac-mini.local "),
        c.expected);
  }
}

}  // namespace
}  // namespace harborkeeper
