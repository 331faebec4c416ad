#include "helper/helper_options.h"

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/platform/state_file_test_support.h"

namespace harborkeeper {

void PrintTo(const HelperOptions& o, std::ostream* os) {
  *os << "{" << o.socketPath << ", " << o.stateDirectory << ", " << o.trustedClientsPath << ", "
      << o.fdesetupPath << ", " << o.pmsetPath << ", " << o.systemdCredsPath << ", "
      << testing::PrintToString(o.trustedExecutables) << ", log " << int(o.logDestination) << "}";
}

namespace {

using namespace testing_support;

struct Parsed {
  HelperOptionsOutcome outcome;
  std::string output;
  std::string error;
};

Parsed parse(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "harborkeeper-helper");
  std::vector<const char*> argv;
  argv.reserve(arguments.size());
  for (const std::string& argument : arguments) argv.push_back(argument.c_str());
  std::ostringstream output;
  std::ostringstream error;
  HelperOptionsOutcome outcome =
      parseHelperOptions(static_cast<int>(argv.size()), argv.data(), output, error);
  return {std::move(outcome), output.str(), error.str()};
}

TEST(HelperOptionsTest, ValidCommandLinesSetTheirFields) {
  const TemporaryDirectory temp;
  const fs::path client = temp.path() / "harborkeeper";
  writeRaw(client, "", fs::perms(0755));
  fs::create_symlink(client, temp.path() / "link");
  const std::string link = (temp.path() / "link").string();
  const std::string canonical = fs::canonical(client).string();

  const HelperOptions defaults;
  const auto with = [&](auto change) {
    HelperOptions options;
    change(options);
    return options;
  };
  const std::pair<std::vector<std::string>, HelperOptions> cases[] = {
      {{}, defaults},
      {{"--socket", "/tmp/s", "--state-dir=/tmp/state", "--trusted-clients", "/tmp/t.plist", "--log",
        "stderr"},
       with([](HelperOptions& o) {
         o.socketPath = "/tmp/s", o.stateDirectory = "/tmp/state", o.trustedClientsPath = "/tmp/t.plist";
         o.logDestination = LogDestination::standardError;
       })},
      {{"--tool", "fdesetup=/opt/a=b", "--tool=systemd-creds=/opt/creds", "--log", "journal"},
       with([](HelperOptions& o) {
         o.fdesetupPath = "/opt/a=b", o.systemdCredsPath = "/opt/creds",
         o.logDestination = LogDestination::journal;
       })},
      {{"--trust-client", link, "--trust-client", client.string()}, with([&](HelperOptions& o) {
         o.trustedExecutables = {canonical, canonical};
       })},
  };
  for (const auto& [arguments, expected] : cases) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    const Parsed parsed = parse(arguments);
    ASSERT_TRUE(parsed.outcome.options.has_value()) << parsed.error;
    EXPECT_EQ(*parsed.outcome.options, expected);
    EXPECT_EQ(parsed.output + parsed.error, "");
  }
  EXPECT_EQ(defaults.socketPath, "/run/com.lumaq.Harborkeeper.Helper");
  EXPECT_EQ(defaults.stateDirectory, "/var/lib/harborkeeper");
  EXPECT_EQ(defaults.pmsetPath, "/usr/bin/pmset");
}

TEST(HelperOptionsTest, UsageErrorsExitWithTwoAndSayWhy) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"--tool", "fdesetup=bin/fdesetup"}, "'bin/fdesetup' is not an absolute path"},
      {{"--tool", "launchctl=/bin/true"}, "unknown tool 'launchctl'"},
      {{"--tool", "fdesetup"}, "'fdesetup' is not NAME=PATH"},
      {{"--socket", "helper.sock"}, "'helper.sock' is not an absolute path"},
      {{"--state-dir", ""}, "'' is not an absolute path"},
      {{"--log", "verbose"}, "verbose"},
      {{"--trust-client", "/nonexistent/harborkeeper"},
       "/nonexistent/harborkeeper: No such file or directory"},
      {{"--socket"}, "--socket"},
      {{"--verbose"}, "--verbose"},
      {{"extra"}, "extra"},
  };
  for (const auto& [arguments, reason] : cases) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    const Parsed parsed = parse(arguments);
    EXPECT_FALSE(parsed.outcome.options.has_value());
    EXPECT_EQ(parsed.outcome.exitCode, 2);
    EXPECT_TRUE(parsed.error.starts_with("harborkeeper-helper: ")) << parsed.error;
    EXPECT_NE(parsed.error.find(reason), std::string::npos) << parsed.error;
    EXPECT_EQ(parsed.output, "");
  }
}

TEST(HelperOptionsTest, HelpAndVersionExitWithZero) {
  const Parsed version = parse({"--version"});
  EXPECT_FALSE(version.outcome.options.has_value());
  EXPECT_EQ(version.outcome.exitCode, 0);
  EXPECT_EQ(version.output, "1.3\n");

  const Parsed help = parse({"--help"});
  EXPECT_EQ(help.outcome.exitCode, 0);
  EXPECT_FALSE(help.outcome.options.has_value());
  for (const char* expected :
       {"root daemon", "--socket", "--state-dir", "--trusted-clients", "--trust-client", "--tool",
        "systemd-creds", "--log", "--version", "SIGTERM"}) {
    EXPECT_NE(help.output.find(expected), std::string::npos) << expected;
  }
}

}  // namespace
}  // namespace harborkeeper
