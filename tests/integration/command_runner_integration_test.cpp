#include <signal.h>
#include <unistd.h>

#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/platform/command_runner_test_support.h"
#include "core/platform/state_file_test_support.h"

#include "tests/integration/child_process.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using ::testing::AllOf, ::testing::Ge, ::testing::Lt, ::testing::MatchesRegex;

// All at once on one runner: none waits for another, each result is its own,
// and every descriptor and child of ours ends with them.
TEST(CommandRunnerIntegrationTest, ToolsNeitherBlockNorStretchNorOutliveTheirRun) {
  const long descriptorsBefore = entryCount();
  const std::string timedOut = "Command timed out after 1 seconds.";
  std::string echoed;  // cat echoes as it reads: the input must be fed while the output is drained
  for (int i = 0; echoed.size() < (4 << 20); ++i) echoed += (i % 2 ? '\n' : '\0') + std::to_string(i);
  const struct {
    std::string tool;
    std::vector<std::string> arguments;
    std::optional<std::string> input;
    double limit, minSeconds, maxSeconds;
    CommandResult expected;  // "<pid>": the tool printed a leftover's pid
  } cases[] = {
      // Killed one second after the limit.
      {"ignores_sigterm.sh", {}, {}, 1, 1.95, 2.1, {"started", timedOut, -2, true}},
      // The result comes as soon as the tool ends; its group's leftover is killed.
      {"leaves_grandchild.sh", {}, {}, 3, 0, 0.5, {"<pid>", "tool done", 3, false}},
      // An escaped leftover is waited for only briefly, and no second of grace is spent on it.
      {"leaves_escaped_grandchild.sh", {}, {}, 3, 0, 0.5, {"<pid>", "", 4, false}},
      {"leaves_escaped_grandchild.sh", {"30"}, {}, 1, 0.95, 1.5, {"<pid>", timedOut, -2, true}},
      // Stderr filled before stdout: reading one pipe to its end first would block the tool.
      {"prints_lots.sh", {}, {}, 10, 0, 5, {std::string(10 << 20, 'o'), std::string(1 << 20, 'e'), 0, false}},
      {"/bin/cat", {}, echoed, 10, 0, 5, {echoed, "", 0, false}},
  };
  const CommandRunner runner(30);
  std::vector<std::future<std::pair<CommandResult, double>>> runs;
  for (const auto& c : cases) {
    runs.push_back(std::async(std::launch::async, [&runner, &c] {
      const auto start = SteadyClock::now();
      // An absolute path replaces the directory.
      auto result = runner.run(fs::path(HARBORKEEPER_TEST_TOOLS_DIR) / c.tool, c.arguments, c.input, c.limit);
      return std::pair(std::move(result), secondsSince(start));
    }));
  }
  for (std::size_t i = 0; i < runs.size(); ++i) {
    const auto& c = cases[i];
    SCOPED_TRACE(c.tool + " limit " + std::to_string(c.limit));
    auto [result, seconds] = runs[i].get();
    EXPECT_THAT(seconds, AllOf(Ge(c.minSeconds), Lt(c.maxSeconds)));
    if (c.expected.standardOutput == "<pid>") {
      const pid_t leftover = std::stoi(result.standardOutput);
      ASSERT_GT(leftover, 1);
      // Only the test can end a leftover that left the tool's group.
      if (c.tool == "leaves_escaped_grandchild.sh") ::kill(leftover, SIGKILL);
      const std::string stat = "/proc/" + std::to_string(leftover) + "/stat";
      // Gone, or a zombie waiting for a parent that is no longer ours to reap.
      EXPECT_TRUE(
          eventually([&] { return contentOf(stat).find(") Z ") != std::string::npos || !fs::exists(stat); }));
      result.standardOutput = "<pid>";
    }
    EXPECT_EQ(result, c.expected);
  }
  EXPECT_TRUE(hasNoChildren());
  EXPECT_EQ(entryCount(), descriptorsBefore);
}

TEST(CommandRunnerIntegrationTest, ToolStartsClean) {
  // Left set: harmless to other tests. No thread-safe setenv exists; no other thread runs here.
  ::setenv("HARBORKEEPER_SECRET_MARKER", "must not leak", 1);  // NOLINT(concurrency-mt-unsafe)
  ASSERT_EQ(::dup2(STDERR_FILENO, 100), 100);                  // a descriptor without close-on-exec
  const auto previousHandler = ::signal(SIGUSR1, SIG_IGN);
  sigset_t all;
  sigset_t previousMask;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_BLOCK, &all, &previousMask);
  // glibc's posix_spawn leaves its two internal signals (32, 33) ignored; any
  // signal a program can use is at its default. Standard input is a pipe
  // whose other end must not reach the tool.
  EXPECT_THAT(CommandRunner(3).run(HARBORKEEPER_PROCESS_PROBE, {}, "input").standardOutput,
              MatchesRegex("cwd=/\nfds=0 1 2\nSigBlk:\t0{16}\nSigIgn:\t(0{16}|0{7}180{7})\ngroup leader"));
  ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  (void)::signal(SIGUSR1, previousHandler);  // restoring the handler just read back cannot fail
  ::close(100);
}

}  // namespace
}  // namespace harborkeeper
