#include "cli/cli_app.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/cli_test_support.h"

namespace harborkeeper::cli {
namespace {

// What the daemon answers is checked end to end with the real daemon; here,
// the exits that need none.
TEST(CliAppTest, ExitStatusesWithoutADaemon) {
  const std::string unreachable =
      "harborkeeper: Could not reach the Harborkeeper helper at /nonexistent/s: No such file or directory.\n";
  const auto usage = [](const std::string& message, const std::string& command = "harborkeeper") {
    return "harborkeeper: " + message + "\nRun '" + command + " --help' for usage.\n";
  };
  const std::tuple<std::vector<const char*>, int, std::string> cases[] = {
      {{"--help"}, 0, ""},
      {{}, 2, "harborkeeper: A command is required.\n"},
      {{"users", "-z"}, 2, usage("The following argument was not expected: -z", "harborkeeper users")},
      {{"frob"}, 2, usage("The following argument was not expected: frob")},
      {{"--socket"}, 2, usage("--socket: 1 required PATH missing")},
      {{"version", "users"}, 2, "harborkeeper: The following argument was not expected: users\n"},
      // --socket before or after the command's name.
      {{"--socket", "/nonexistent/s", "version"}, 3, unreachable},
      {{"status", "--json", "--socket", "/nonexistent/s"}, 3, unreachable},
  };
  for (const auto& [arguments, status, err] : cases) {
    SCOPED_TRACE(err);
    const testing_support::CliRun result = testing_support::run(arguments);
    EXPECT_EQ(result.status, status);
    EXPECT_THAT(result.err, testing::StartsWith(err));
    EXPECT_EQ(result.out.empty(), status != 0);
  }
}

}  // namespace
}  // namespace harborkeeper::cli
