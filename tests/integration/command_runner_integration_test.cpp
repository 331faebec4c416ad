#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/platform/command_runner.h"

namespace harborkeeper {

// Readable failure output for the result record.
static void PrintTo(const CommandResult& result, std::ostream* os) {
  *os << "{out: \"" << result.standardOutput.substr(0, 300) << "\", err: \""
      << result.standardError.substr(0, 300) << "\", exitCode: " << result.exitCode
      << ", timedOut: " << std::boolalpha << result.timedOut << "}";
}

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

const std::string kTools = HARBORKEEPER_TEST_TOOLS_DIR;
const std::string kProbe = HARBORKEEPER_PROCESS_PROBE;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Gone, or a zombie waiting for a parent that is no longer ours to reap.
bool processIsGone(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string pidField, name, state;
  return !(stat >> pidField >> name >> state) || state == "Z";
}

bool becomesGone(pid_t pid) {
  for (const auto until = Clock::now() + 2s; Clock::now() < until; std::this_thread::sleep_for(10ms)) {
    if (processIsGone(pid)) return true;
  }
  return false;
}

// Every test ends with no child left behind, reaped or not.
class CommandRunnerIntegrationTest : public ::testing::Test {
 protected:
  void TearDown() override {
    errno = 0;
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  }
};

struct TimedCase {
  const char* name;
  std::string executable;
  std::vector<std::string> arguments;
  double limit;
  CommandResult expected;  // "<pid>" in standardOutput: the tool printed a leftover's pid there.
  double minSeconds;
  double maxSeconds;
  bool leftoverEscapes = false;  // moved out of the tool's group, so the test kills it
};

TEST_F(CommandRunnerIntegrationTest, LeftoverProcessesNeitherStretchNorOutliveTheRun) {
  const TimedCase cases[] = {
      {"ignores SIGTERM: killed one second after the limit",
       kTools + "/ignores_sigterm.sh",
       {},
       1,
       {"started", "Command timed out after 1 seconds.", -2, true},
       1.95,
       2.1},
      {"grandchild holds stdout: result as soon as the tool ends",
       kTools + "/leaves_grandchild.sh",
       {},
       3,
       {"<pid>", "tool done", 3, false},
       0,
       0.5},
      {"grandchild escaped the group: waited for only briefly",
       kTools + "/leaves_escaped_grandchild.sh",
       {},
       3,
       {"<pid>", "", 4, false},
       0,
       0.5,
       true},
      {"escaped grandchild at the limit: no second of grace once the tool is gone",
       kTools + "/leaves_escaped_grandchild.sh",
       {"30"},
       1,
       {"<pid>", "Command timed out after 1 seconds.", -2, true},
       0.95,
       1.5,
       true},
  };
  const CommandRunner runner(30);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto start = Clock::now();
    auto result = runner.run(c.executable, c.arguments, std::nullopt, c.limit);
    const double elapsed = secondsSince(start);
    EXPECT_GE(elapsed, c.minSeconds);
    EXPECT_LT(elapsed, c.maxSeconds);
    if (c.expected.standardOutput == "<pid>") {
      const pid_t leftover = std::atoi(result.standardOutput.c_str());
      ASSERT_GT(leftover, 1) << result.standardOutput;
      if (c.leftoverEscapes) ::kill(leftover, SIGKILL);
      EXPECT_TRUE(becomesGone(leftover));
      result.standardOutput = "<pid>";
    }
    EXPECT_EQ(result, c.expected);
  }
}

TEST_F(CommandRunnerIntegrationTest, LargeOutputOnBothStreamsIsDrainedWhileTheToolRuns) {
  const auto result = CommandRunner(3).run(kTools + "/prints_lots.sh", {});
  EXPECT_EQ(result.exitCode, 0) << result.standardError.substr(0, 200);
  EXPECT_FALSE(result.timedOut);
  EXPECT_EQ(result.standardOutput, std::string(10 << 20, 'o'));
  EXPECT_EQ(result.standardError, std::string(1 << 20, 'e'));
}

std::string fnv1a64(const std::string& bytes) {
  std::uint64_t hash = 14695981039346656037ull;
  for (const unsigned char byte : bytes) hash = (hash ^ byte) * 1099511628211ull;
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

TEST_F(CommandRunnerIntegrationTest, LargeInputArrivesWholeAndInOrder) {
  std::string input(4 << 20, '\0');
  std::uint32_t state = 12345;
  for (char& byte : input) byte = static_cast<char>((state = state * 1103515245u + 12345u) >> 24);
  const auto result = CommandRunner(3).run(kProbe, {"digest"}, input);
  EXPECT_EQ(result, (CommandResult{std::to_string(input.size()) + " " + fnv1a64(input), "", 0, false}));
}

// Signal state of the calling thread that a tool must not inherit.
class NoisySignalState {
 public:
  NoisySignalState() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGUSR1, &ignore, &previousAction_);
    sigset_t blocked;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGUSR2);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &previousMask_);
  }
  ~NoisySignalState() {
    ::pthread_sigmask(SIG_SETMASK, &previousMask_, nullptr);
    ::sigaction(SIGUSR1, &previousAction_, nullptr);
  }

 private:
  struct sigaction previousAction_ {};
  sigset_t previousMask_{};
};

TEST_F(CommandRunnerIntegrationTest, ToolStartsClean) {
  ::setenv("HARBORKEEPER_SECRET_MARKER", "must not leak", 1);
  const int leaked = ::open("/dev/null", O_RDONLY);  // deliberately without O_CLOEXEC
  ASSERT_GE(leaked, 0);
  ASSERT_EQ(::dup2(leaked, 100), 100);
  const NoisySignalState noisy;
  const std::string ownGroup = std::to_string(::getpgrp());

  const CommandRunner runner(3);
  EXPECT_EQ(runner.run(kProbe, {"environment"}), (CommandResult{"cwd=/", "", 0, false}));
  EXPECT_EQ(runner.run(kProbe, {"fds"}), (CommandResult{"0 1 2", "", 0, false}));
  EXPECT_EQ(runner.run(kProbe, {"fds"}, "with input"), (CommandResult{"0 1 2", "", 0, false}));
  // glibc's posix_spawn leaves its two reserved real-time signals (32, 33; below
  // SIGRTMIN) ignored in the child; every signal a program can use is default.
  const std::uint64_t glibcReserved = (1ull << (32 - 1)) | (1ull << (33 - 1));
  const auto signals = runner.run(kProbe, {"signals"});
  std::uint64_t blocked = ~0ull;
  std::uint64_t ignored = ~0ull;
  ASSERT_EQ(
      std::sscanf(signals.standardOutput.c_str(), "SigBlk: %" SCNx64 " SigIgn: %" SCNx64, &blocked, &ignored),
      2)
      << signals.standardOutput;
  EXPECT_EQ(blocked, 0u);
  EXPECT_EQ(ignored & ~glibcReserved, 0u) << std::hex << ignored;
  const auto group = runner.run(kProbe, {"group"});
  EXPECT_THAT(group.standardOutput, ::testing::StartsWith("leader "));
  EXPECT_NE(group.standardOutput, "leader " + ownGroup);

  ::close(100);
  ::close(leaked);
  ::unsetenv("HARBORKEEPER_SECRET_MARKER");
}

TEST_F(CommandRunnerIntegrationTest, ParallelRunsAreIndependent) {
  constexpr int kRuns = 8;
  std::vector<CommandResult> results(kRuns);
  std::vector<std::thread> threads;
  const CommandRunner runner(3);
  const auto start = Clock::now();
  for (int i = 0; i < kRuns; ++i) {
    threads.emplace_back([&, i] {
      // Odd runs outlive their limit; even ones end with their own status.
      const std::string script = "read line; echo \"out-$1 $line\"; echo err-$1 >&2; sleep " +
                                 std::string(i % 2 ? "5" : "0.3") + "; exit $1";
      results[i] = runner.run("/bin/sh", {"-c", script, "sh", std::to_string(i)},
                              "input " + std::to_string(i), i % 2 ? 0.5 : 3.0);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_LT(secondsSince(start), 1.5);
  for (int i = 0; i < kRuns; ++i) {
    const std::string n = std::to_string(i);
    const CommandResult expected =
        i % 2 ? CommandResult{"out-" + n + " input " + n, "Command timed out after 0.5 seconds.", -2, true}
              : CommandResult{"out-" + n + " input " + n, "err-" + n, i, false};
    EXPECT_EQ(results[i], expected) << i;
  }
}

}  // namespace
}  // namespace harborkeeper
