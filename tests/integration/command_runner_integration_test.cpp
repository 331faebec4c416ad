#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/platform/command_runner_test_support.h"
#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using ::testing::AllOf, ::testing::Ge, ::testing::Lt, ::testing::MatchesRegex;

// Gone, or a zombie waiting for a parent that is no longer ours to reap.
bool becomesGone(pid_t pid) {
  for (int i = 0; i < 200; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string state;  // the third field
    if (!(stat >> state >> state >> state) || state == "Z") return true;
  }
  return false;
}

// Every test ends with no child left behind, reaped or not, and none of our descriptors left open.
class CommandRunnerIntegrationTest : public ::testing::Test {
  void TearDown() override {
    EXPECT_TRUE(hasNoChildren());
    EXPECT_EQ(entryCount(), descriptorsBefore_);
  }
  const long descriptorsBefore_ = entryCount();
};

TEST_F(CommandRunnerIntegrationTest, LeftoverProcessesNeitherStretchNorOutliveTheRun) {
  const std::string timedOut = "Command timed out after 1 seconds.";
  struct Case {
    const char* tool;
    std::vector<std::string> arguments;
    double limit, minSeconds, maxSeconds;
    CommandResult expected;  // "<pid>": the tool printed a leftover's pid
    bool escapes;            // the leftover left the tool's group, so only the test can kill it
  };
  const Case cases[] = {
      // Killed one second after the limit.
      {"ignores_sigterm.sh", {}, 1, 1.95, 2.1, {"started", timedOut, -2, true}, false},
      // The result comes as soon as the tool ends; its group's leftover is killed.
      {"leaves_grandchild.sh", {}, 3, 0, 0.5, {"<pid>", "tool done", 3, false}, false},
      // An escaped leftover is waited for only briefly, and no second of grace is spent on it.
      {"leaves_escaped_grandchild.sh", {}, 3, 0, 0.5, {"<pid>", "", 4, false}, true},
      {"leaves_escaped_grandchild.sh", {"30"}, 1, 0.95, 1.5, {"<pid>", timedOut, -2, true}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.tool) + " limit " + std::to_string(c.limit));
    const auto start = SteadyClock::now();
    auto result = CommandRunner(30).run(HARBORKEEPER_TEST_TOOLS_DIR "/" + std::string(c.tool), c.arguments,
                                        std::nullopt, c.limit);
    EXPECT_THAT(secondsSince(start), AllOf(Ge(c.minSeconds), Lt(c.maxSeconds)));
    if (c.expected.standardOutput == "<pid>") {
      const pid_t leftover = std::stoi(result.standardOutput);
      ASSERT_GT(leftover, 1) << result.standardOutput;
      if (c.escapes) ::kill(leftover, SIGKILL);
      EXPECT_TRUE(becomesGone(leftover));
      result.standardOutput = "<pid>";
    }
    EXPECT_EQ(result, c.expected);
  }
}

TEST_F(CommandRunnerIntegrationTest, LargeDataFlowsBothWaysWithoutBlocking) {
  // The tool fills stderr before it writes stdout: reading one pipe to its end first would block it.
  EXPECT_EQ(CommandRunner(10).run(HARBORKEEPER_TEST_TOOLS_DIR "/prints_lots.sh", {}),
            (CommandResult{std::string(10 << 20, 'o'), std::string(1 << 20, 'e'), 0, false}));
  // cat echoes as it reads, so the input must be fed while the output is drained.
  std::string input;
  for (int i = 0; input.size() < (4 << 20); ++i) input += (i % 2 ? '\n' : '\0') + std::to_string(i);
  EXPECT_EQ(CommandRunner(10).run("/bin/cat", {}, input), (CommandResult{input, "", 0, false}));
}

TEST_F(CommandRunnerIntegrationTest, ToolStartsClean) {
  // Left set: harmless to other tests. No thread-safe setenv exists; no other thread runs here.
  ::setenv("HARBORKEEPER_SECRET_MARKER", "must not leak", 1);  // NOLINT(concurrency-mt-unsafe)
  ASSERT_EQ(::dup2(STDERR_FILENO, 100), 100);                  // a descriptor without close-on-exec
  const auto previousHandler = ::signal(SIGUSR1, SIG_IGN);
  sigset_t all;
  sigset_t previousMask;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_BLOCK, &all, &previousMask);
  // glibc's posix_spawn leaves its two internal signals (32, 33) ignored; any
  // signal a program can use is at its default.
  const char* clean = "cwd=/\nfds=0 1 2\nSigBlk:\t0{16}\nSigIgn:\t(0{16}|0{7}180{7})\ngroup leader";
  EXPECT_THAT(CommandRunner(3).run(HARBORKEEPER_PROCESS_PROBE, {}).standardOutput, MatchesRegex(clean));
  EXPECT_THAT(CommandRunner(3).run(HARBORKEEPER_PROCESS_PROBE, {}, "input").standardOutput,
              MatchesRegex(clean));
  ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  (void)::signal(SIGUSR1, previousHandler);  // restoring the handler just read back cannot fail
  ::close(100);
}

TEST_F(CommandRunnerIntegrationTest, ParallelRunsAreIndependent) {
  const CommandRunner runner(3);
  const std::string script = "read l; echo \"out $l\"; echo err-$1 >&2; sleep $2; exit $1";
  std::vector<std::future<CommandResult>> runs;
  runs.reserve(8);
  const auto start = SteadyClock::now();
  for (int i = 0; i < 8; ++i) {  // odd runs outlive their limit; even ones end with their own status
    runs.push_back(std::async(std::launch::async, [&, i, n = std::to_string(i)] {
      return runner.run("/bin/sh", {"-c", script, "sh", n, i % 2 ? "5" : "0.3"}, "in" + n, i % 2 ? 0.5 : 3.0);
    }));
  }
  for (int i = 0; i < 8; ++i) {
    const std::string n = std::to_string(i);
    EXPECT_EQ(runs[i].get(),
              (i % 2 ? CommandResult{"out in" + n, "Command timed out after 0.5 seconds.", -2, true}
                     : CommandResult{"out in" + n, "err-" + n, i, false}));
  }
  EXPECT_LT(secondsSince(start), 1.5);
}

}  // namespace
}  // namespace harborkeeper
