#include "core/platform/command_runner.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <ostream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace harborkeeper {

// Readable failure output for the result record.
static void PrintTo(const CommandResult& result, std::ostream* os) {
  *os << "{out: \"" << result.standardOutput.substr(0, 300) << "\", err: \""
      << result.standardError.substr(0, 300) << "\", exitCode: " << result.exitCode
      << ", timedOut: " << std::boolalpha << result.timedOut << "}";
}

namespace {

using Clock = std::chrono::steady_clock;
using Arguments = std::vector<std::string>;

constexpr char kAbsolutePathMessage[] = "CommandRunner requires an absolute executable path.";
const std::string kReplacement = "\xEF\xBF\xBD";

bool hasNoChildren() { return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

TEST(CommandRunnerTest, RefusesPathsThatAreNotAbsoluteWithoutStartingAnything) {
  const CommandRunner runner(5);
  for (const std::string path : {"fdesetup", "", "true", "bin/true", "./true", " /bin/true"}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(runner.run(path, {}), (CommandResult{"", kAbsolutePathMessage, -1, false}));
  }
  EXPECT_TRUE(hasNoChildren());
}

TEST(CommandRunnerTest, TimeoutDescriptionUsesIntegersForWholeSeconds) {
  const struct {
    double seconds;
    const char* expected;
  } cases[] = {{30, "30"},     {0, "0"},         {-0.0, "0"},       {1, "1"},
               {3600, "3600"}, {1e6, "1000000"}, {2.5, "2.5"},      {0.26, "0.3"},
               {0.05, "0.1"},  {29.96, "30.0"},  {120.75, "120.8"}, {1e20, "100000000000000000000"}};
  for (const auto& c : cases) {
    EXPECT_EQ(CommandRunner::timeoutDescription(c.seconds), c.expected) << c.seconds;
  }
}

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = ::testing::TempDir() + "command_runner_XXXXXX";
    path_ = ::mkdtemp(pattern.data()) ? pattern : "";
  }
  ~TemporaryDirectory() { std::system(("rm -rf '" + path_ + "'").c_str()); }
  std::string file(const std::string& name, const std::string& content, mode_t mode) const {
    const std::string path = path_ + "/" + name;
    std::ofstream(path) << content;
    ::chmod(path.c_str(), mode);
    return path;
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

TEST(CommandRunnerTest, LaunchFailuresNameThePathAndTheCause) {
  const TemporaryDirectory directory;
  ASSERT_FALSE(directory.path().empty());
  const struct {
    std::string path;
    const char* cause;
  } cases[] = {
      {"/nonexistent/harborkeeper-tool", "No such file or directory"},
      {directory.file("plain", "#!/bin/sh\necho ran\n", 0644), "Permission denied"},
      {directory.path(), "Permission denied"},
      {directory.file("garbage", std::string("\x01\x02\x03 not a program\n"), 0755), "Exec format error"},
  };
  const CommandRunner runner(5);
  for (const auto& c : cases) {
    const std::string message = "Could not launch " + c.path + ": " + c.cause + ".";
    EXPECT_EQ(runner.run(c.path, {"argument"}, "input"), (CommandResult{"", message, -1, false}));
  }
  EXPECT_TRUE(hasNoChildren());
}

// Ignores SIGTERM in this process while alive; a child must not inherit that.
class IgnoredSigterm {
 public:
  IgnoredSigterm() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGTERM, &ignore, &previous_);
  }
  ~IgnoredSigterm() { ::sigaction(SIGTERM, &previous_, nullptr); }

 private:
  struct sigaction previous_ {};
};

TEST(CommandRunnerTest, ReportsExitStatusOrTerminatingSignal) {
  const IgnoredSigterm ignored;
  const struct {
    const char* script;
    CommandResult expected;
  } cases[] = {
      {"exit 0", {"", "", 0, false}},
      {"echo done; exit 1", {"done", "", 1, false}},
      {"echo why >&2; exit 42", {"", "why", 42, false}},
      {"exit 255", {"", "", 255, false}},
      {"kill -KILL $$", {"", "", SIGKILL, false}},
      {"kill -TERM $$", {"", "", SIGTERM, false}},
  };
  const CommandRunner runner(5);
  for (const auto& c : cases) {
    EXPECT_EQ(runner.run("/bin/sh", {"-c", c.script}), c.expected) << c.script;
  }
  EXPECT_TRUE(hasNoChildren());
}

TEST(CommandRunnerTest, OutputIsRepairedAndTrimmedPerStream) {
  const struct {
    Arguments arguments;
    std::string out;
    std::string err;
  } cases[] = {
      {{"-c", "printf '\\n\\n  hello  world \\n\\n\\n'"}, "hello  world", ""},
      {{"-c", "printf '\\377'"}, kReplacement, ""},
      {{"-c", "printf 'a\\377\\300b\\n'"}, "a" + kReplacement + kReplacement + "b", ""},
      {{"-c", "printf '\\t\\302\\240x y\\302\\240\\r\\n'"}, "x y", ""},
      {{"-c", "printf ' warn \\n\\n' >&2; printf ' ok '"}, "ok", "warn"},
      {{"-c", "printf 'bad \\377' >&2"}, "", "bad " + kReplacement},
      {{"-c", "printf 'line one\\n\\nline two\\n'"}, "line one\n\nline two", ""},
  };
  const CommandRunner runner(5);
  for (const auto& c : cases) {
    EXPECT_EQ(runner.run("/bin/sh", c.arguments), (CommandResult{c.out, c.err, 0, false})) << c.arguments[1];
  }
}

// Makes this process's own standard input a pipe nobody writes to, so a tool
// that inherited it would block instead of seeing an empty /dev/null.
class CallerInputIsSilentPipe {
 public:
  CallerInputIsSilentPipe() : saved_(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)) {
    if (::pipe2(pipe_, O_CLOEXEC) == 0) ::dup2(pipe_[0], STDIN_FILENO);
  }
  ~CallerInputIsSilentPipe() {
    ::dup2(saved_, STDIN_FILENO);
    for (const int fd : {saved_, pipe_[0], pipe_[1]}) ::close(fd);
  }

 private:
  int saved_;
  int pipe_[2] = {-1, -1};
};

TEST(CommandRunnerTest, StandardInputIsFedOnlyWhenPresent) {
  const CallerInputIsSilentPipe callerInput;
  const struct {
    const char* executable;
    Arguments arguments;
    std::optional<std::string_view> input;
    const char* outputPattern;
  } cases[] = {
      {"/bin/cat", {}, "", ""},
      {"/bin/cat", {}, std::nullopt, ""},
      {"/bin/cat", {}, "line one\nline two\n", "line one\nline two"},
      {"/bin/sh", {"-c", "read first; echo \"got $first\""}, "s3cret\nrest", "got s3cret"},
      {"/usr/bin/readlink", {"/proc/self/fd/0"}, std::nullopt, "/dev/null"},
      {"/usr/bin/readlink", {"/proc/self/fd/0"}, "", "pipe:\\[[0-9]+\\]"},
  };
  const CommandRunner runner(2);
  for (const auto& c : cases) {
    const auto result = runner.run(c.executable, c.arguments, c.input);
    EXPECT_THAT(result.standardOutput, ::testing::MatchesRegex(c.outputPattern)) << c.executable;
    EXPECT_EQ(result.exitCode, 0) << result.standardError;
  }
}

TEST(CommandRunnerTest, ToolThatClosesItsInputEarlyDoesNotHurtTheCaller) {
  const std::string input(1 << 20, 'x');
  // The tool closes its input while it still runs, so writing to it fails.
  const auto result = CommandRunner(5).run("/bin/sh", {"-c", "exec 0<&-; sleep 0.2; echo survived"}, input);
  EXPECT_EQ(result, (CommandResult{"survived", "", 0, false}));
  sigset_t pending;
  sigset_t mask;
  ::sigpending(&pending);
  ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  EXPECT_FALSE(::sigismember(&pending, SIGPIPE));
  EXPECT_FALSE(::sigismember(&mask, SIGPIPE));
}

TEST(CommandRunnerTest, ToolSeesNoEnvironmentAndRunsInRoot) {
  ::setenv("HARBORKEEPER_MARKER", "leaked", 1);
  const CommandRunner runner(5);
  EXPECT_EQ(runner.run("/usr/bin/env", {}), (CommandResult{"", "", 0, false}));
  EXPECT_EQ(runner.run("/bin/sh", {"-c", "echo \"[$HOME][$HARBORKEEPER_MARKER]\"; pwd"}),
            (CommandResult{"[][]\n/", "", 0, false}));
  ::unsetenv("HARBORKEEPER_MARKER");
}

TEST(CommandRunnerTest, LimitExceededKeepsOutputSoFarAndReplacesErrors) {
  const struct {
    std::optional<double> timeout;
    const char* script;
    CommandResult expected;
  } cases[] = {
      {0.3,
       "echo partial; echo noise >&2; exec sleep 5",
       {"partial", "Command timed out after 0.3 seconds.", -2, true}},
      {std::nullopt, "exec sleep 5", {"", "Command timed out after 0.4 seconds.", -2, true}},
      {std::numeric_limits<double>::quiet_NaN(),
       "exec sleep 5",
       {"", "Command timed out after 0 seconds.", -2, true}},
      {std::numeric_limits<double>::infinity(),
       "exec sleep 5",
       {"", "Command timed out after 0 seconds.", -2, true}},
      {-1, "exec sleep 5", {"", "Command timed out after 0 seconds.", -2, true}},
  };
  const CommandRunner runner(0.4);
  for (const auto& c : cases) {
    const auto start = Clock::now();
    EXPECT_EQ(runner.run("/bin/sh", {"-c", c.script}, std::nullopt, c.timeout), c.expected) << c.script;
    // The tool obeys SIGTERM, so no second of grace is spent on it.
    EXPECT_LT(secondsSince(start), runner.defaultTimeout() + 0.5);
  }
  EXPECT_TRUE(hasNoChildren());
}

}  // namespace
}  // namespace harborkeeper
