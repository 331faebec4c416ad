#include "core/platform/command_runner.h"

#include <signal.h>

#include <cmath>
#include <string>
#include <tuple>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/platform/command_runner_test_support.h"
#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

using namespace testing_support;

const std::string kReplacement = "\xEF\xBF\xBD";

TEST(CommandRunnerTest, LaunchFailuresStartNothing) {
  const TemporaryDirectory temp;
  const std::string plain = temp.path() / "plain";
  const std::string garbage = temp.path() / "garbage";
  writeRaw(plain, "#!/bin/sh\necho ran\n", fs::perms(0644));
  // Not a program: it must not be run with a shell instead.
  writeRaw(garbage, "\x01\x02\x03 not a program\n", fs::perms(0755));
  const std::string relative = "CommandRunner requires an absolute executable path.";
  const std::pair<std::string, std::string> cases[] = {
      {"true", relative},
      {" /bin/true", relative},
      {"/nonexistent/tool", "Could not launch /nonexistent/tool: No such file or directory."},
      {plain, "Could not launch " + plain + ": Permission denied."},
      {garbage, "Could not launch " + garbage + ": Exec format error."},
  };
  for (const auto& [path, error] : cases) {
    EXPECT_EQ(CommandRunner(5).run(path, {"arg"}, "in"), (CommandResult{"", error, -1, false})) << path;
  }
  EXPECT_TRUE(hasNoChildren());
}

// What the tool is given and what comes back: status, and each stream repaired and trimmed.
TEST(CommandRunnerTest, RunFeedsInputAndReportsStatusAndCleanOutput) {
  const std::tuple<const char*, std::optional<std::string>, CommandResult> cases[] = {
      {R"(printf '\n a  b \n\nc\n\n'; exit 1)", {}, {"a  b \n\nc", "", 1, false}},
      {R"(printf '\t\302\240x y\302\240\r\n'; exit 255)", {}, {"x y", "", 255, false}},
      {"printf ' warn \\377\\n' >&2; printf ' ok '; exit 42", {}, {"ok", "warn " + kReplacement, 42, false}},
      {"echo partial; kill -KILL $$", {}, {"partial", "", SIGKILL, false}},
      {"readlink /proc/self/fd/0", std::nullopt, {"/dev/null", "", 0, false}},
      {"[ -p /dev/stdin ] && cat", "", {"", "", 0, false}},  // closed at once, so cat does not wait for more
      {"cat", "line one\nline two\n", {"line one\nline two", "", 0, false}},
      // The tool stops reading early: the write fails, but no SIGPIPE reaches the caller.
      {"exec 0<&-; sleep 0.2; echo survived", std::string(1 << 20, 'x'), {"survived", "", 0, false}},
  };
  for (const auto& [script, input, expected] : cases) {
    EXPECT_EQ(CommandRunner(5).run("/bin/sh", {"-c", script}, input), expected) << script;
  }
  sigset_t pending;
  sigset_t mask;
  ::sigpending(&pending);
  ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  EXPECT_FALSE(::sigismember(&pending, SIGPIPE));
  EXPECT_FALSE(::sigismember(&mask, SIGPIPE));
}

TEST(CommandRunnerTest, LimitExceededKeepsOutputSoFarAndReplacesErrors) {
  // Whole seconds are described as integers.
  const std::pair<double, const char*> descriptions[] = {
      {30, "30"}, {-0.0, "0"}, {2.5, "2.5"}, {0.05, "0.1"}, {29.96, "30.0"}, {1e20, "100000000000000000000"}};
  for (const auto& [seconds, expected] : descriptions) {
    EXPECT_EQ(CommandRunner::timeoutDescription(seconds), expected);
  }
  // A limit described as "0" stops the tool at once, perhaps before it printed anything.
  const std::pair<std::optional<double>, std::string> cases[] = {
      {0.3, "0.3"}, {std::nullopt, "0.4"}, {std::nan(""), "0"}, {HUGE_VAL, "0"}, {-1, "0"}};
  const CommandRunner runner(0.4);
  for (const auto& [limit, description] : cases) {
    const auto start = SteadyClock::now();
    auto result =
        runner.run("/bin/sh", {"-c", "echo partial; echo noise >&2; exec sleep 5"}, std::nullopt, limit);
    if (description == "0" && result.standardOutput.empty()) result.standardOutput = "partial";
    EXPECT_EQ(result,
              (CommandResult{"partial", "Command timed out after " + description + " seconds.", -2, true}));
    // The tool obeys SIGTERM, so no second of grace is spent on it.
    EXPECT_LT(secondsSince(start), runner.defaultTimeout() + 0.5) << description;
  }
  EXPECT_TRUE(hasNoChildren());
}

}  // namespace
}  // namespace harborkeeper
