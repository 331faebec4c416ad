#include "helper/helper_service.h"

#include <unistd.h>

#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/ipc/frame_codec.h"
#include "core/platform/state_file_test_support.h"
#include "core/protection/protection_status_store.h"
#include "helper/helper_options.h"

namespace harborkeeper {
namespace {

using namespace testing_support;

struct HelperServiceTest : testing::Test {
  // The one reply of a direct request.
  plist::Array handle(std::string_view selector) {
    std::vector<plist::Array> replies;
    service.handle({7, std::string(selector), {}},
                   [&](const plist::Array& reply) { replies.push_back(reply); });
    return replies.size() == 1 ? replies[0] : plist::Array{"not one reply"};
  }

  const TemporaryDirectory temp;
  const fs::path state = temp.path() / "state";
  const std::unique_ptr<Logger> logger = makeProcessLogger(LogDestination::standardError);
  const HelperServiceConfiguration configuration{.stateDirectory = state, .stateOwner = ::getuid()};
  HelperService service{configuration, HelperServiceDependencies::system(configuration, *logger), *logger};
};

// The stored bytes go out untouched, but only while the file passes the checks;
// none stored is helper_daemon_test's.
TEST_F(HelperServiceTest, ProtectionStatusIsTheStoredBytesOfASecureFile) {
  auto status = [&] { return ipc::readOptionalDataReply(handle(ipc::selectors::protectionStatusData)); };
  ProtectionStatusStore(state, ::getuid()).store({HelperProtectionMode::persistent, true, Date(), "Armed."});
  EXPECT_EQ(status(), toBytes(contentOf(state / "ProtectionStatus.plist")));
  fs::permissions(state / "ProtectionStatus.plist", fs::perms(0644));
  EXPECT_EQ(status(), std::nullopt);
}

// Queued work in arrival order is the serial queue's test; that direct
// requests do not wait behind it, and each request is answered once, is proven
// against the real daemon by fault_injection_test and soak_test.

TEST(HelperOptionsTest, ParsesValidLinesAndExitsOnEverythingElse) {
  const TemporaryDirectory temp;
  writeRaw(temp.path() / "harborkeeper", "", fs::perms(0755));
  fs::create_symlink(temp.path() / "harborkeeper", temp.path() / "link");
  const std::string cli = fs::canonical(temp.path() / "harborkeeper").string();
  HelperOptions all;
  all.socketPath = "/s", all.stateDirectory = "/d", all.trustedClientsPath = "/t", all.fdesetupPath = "/a=b";
  all.trustedExecutables = {cli, cli}, all.logDestination = LogDestination::journal;
  // Options, exit code, standard output, standard error.
  const auto parse = [](const std::vector<std::string>& arguments) {
    std::vector<const char*> argv{"harborkeeper-helper"};
    for (const std::string& argument : arguments) argv.push_back(argument.c_str());
    std::ostringstream output;
    std::ostringstream error;
    const HelperOptionsOutcome outcome = parseHelperOptions(int(argv.size()), argv.data(), output, error);
    return std::tuple(outcome.options, outcome.exitCode, output.str(), error.str());
  };
  EXPECT_EQ(parse({"--socket", "/s", "--state-dir=/d", "--trusted-clients", "/t", "--tool", "fdesetup=/a=b",
                   "--trust-client", temp.path() / "link", "--trust-client", cli, "--log", "journal"}),
            std::tuple(all, 0, "", ""));
  EXPECT_EQ(parse({"--version"}), std::tuple(std::nullopt, 0, "1.3\n", ""));
  const std::pair<std::vector<std::string>, std::string> refused[] = {
      {{"--tool", "fdesetup=bin/fdesetup"}, "--tool: 'bin/fdesetup' is not an absolute path"},
      {{"--tool", "launchctl=/bin/true"},
       "--tool: unknown tool 'launchctl' (expected fdesetup, pmset or systemd-creds)"},
      {{"--tool", "fdesetup"}, "--tool: 'fdesetup' is not NAME=PATH"},
      {{"--trust-client", "/nonexistent/x"}, "--trust-client: /nonexistent/x: No such file or directory"},
  };
  for (const auto& [arguments, message] : refused) {
    SCOPED_TRACE(message);
    const std::string shown =
        "harborkeeper-helper: " + message + "\nRun harborkeeper-helper --help for usage.\n";
    EXPECT_EQ(parse(arguments), std::tuple(std::nullopt, 2, "", shown));
  }
}

}  // namespace
}  // namespace harborkeeper
