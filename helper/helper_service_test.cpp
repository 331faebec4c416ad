#include "helper/helper_service.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/ipc/frame_codec.h"
#include "core/platform/state_file_test_support.h"
#include "core/protection/file_vault_users.h"
#include "core/protection/protection_status_store.h"
#include "helper/helper_options.h"

namespace harborkeeper {
namespace {

using namespace testing_support;

// Executable, arguments, whether it got a standard input, timeout.
using ToolRun = std::tuple<std::string, std::vector<std::string>, bool, std::optional<double>>;

// Called on the test's own thread (a direct request), so no lock is needed.
struct RecordingExecutor final : CommandExecutor {
  CommandResult run(const std::string& executable, const std::vector<std::string>& arguments,
                    std::optional<std::string_view> standardInput,
                    std::optional<double> timeout) const noexcept override {
    runs.emplace_back(executable, arguments, standardInput.has_value(), timeout);
    return result;
  }
  CommandResult result;
  mutable std::vector<ToolRun> runs;
};

struct HelperServiceTest : testing::Test {
  // The one reply of a direct request.
  plist::Array handle(std::string_view selector) {
    std::vector<plist::Array> replies;
    service.handle({7, std::string(selector), {}},
                   [&](plist::Array reply) { replies.push_back(std::move(reply)); });
    return replies.size() == 1 ? replies[0] : plist::Array{"not one reply"};
  }

  const TemporaryDirectory temp;
  const fs::path state = temp.path() / "state";
  const std::shared_ptr<RecordingExecutor> executor = std::make_shared<RecordingExecutor>();
  const std::unique_ptr<Logger> logger = makeProcessLogger(LogDestination::standardError);
  HelperService service{{.stateDirectory = state, .fdesetupPath = "/opt/fdesetup", .stateOwner = ::getuid()},
                        executor,
                        *logger};
};

// A failing run is reported inside the list.
TEST_F(HelperServiceTest, FileVaultUsersComeFromOneRunOfFdesetupList) {
  executor->result = {"", "", 1, false};
  const auto data = ipc::readOptionalDataReply(handle(ipc::selectors::fileVaultUsersData));
  ASSERT_TRUE(data.has_value());
  EXPECT_EQ(FileVaultUserList::decode(asStringView(*data)),
            (FileVaultUserList{{}, "fdesetup list failed with exit code 1."}));
  EXPECT_EQ(executor->runs, std::vector{ToolRun("/opt/fdesetup", {"list"}, false, 30.0)});
}

// The stored bytes go out untouched, but only while the file passes the checks.
TEST_F(HelperServiceTest, ProtectionStatusIsTheStoredBytesOfASecureFile) {
  const ProtectionStatusStore store(state, ::getuid());
  const fs::path file = state / "ProtectionStatus.plist";
  const auto status = [&] {
    return ipc::readOptionalDataReply(handle(ipc::selectors::protectionStatusData));
  };
  EXPECT_EQ(status(), std::nullopt);
  store.store({HelperProtectionMode::persistent, true, Date(), "Armed."});
  EXPECT_EQ(status(), toBytes(contentOf(file)));
  ::chmod(file.c_str(), 0644);
  EXPECT_EQ(status(), std::nullopt);
}

// Queued work waits behind what holds the queue, then runs in arrival order
// and replies once; direct requests do not wait for it.
TEST_F(HelperServiceTest, QueuedWorkRunsInOrderWhileDirectRequestsAnswerAtOnce) {
  std::promise<void> release;
  ASSERT_TRUE(service.enqueue([gate = release.get_future().share()] { gate.wait(); }));
  const DispatchEntry echo{"echo:", Dispatch::queued,
                           [](HelperService&, const plist::Array& arguments) { return arguments; }};
  std::vector<std::int64_t> replied;
  for (std::int64_t value = 0; value < 40; ++value) {
    service.dispatch(echo, {value},
                     [&](plist::Array reply) { replied.push_back(*reply.at(0).get<std::int64_t>()); });
  }
  EXPECT_EQ(handle(ipc::selectors::helperVersion), ipc::textReply("1.3"));
  std::promise<void> done;
  service.enqueue([&] { done.set_value(); });
  EXPECT_TRUE(replied.empty());
  release.set_value();
  done.get_future().wait();
  EXPECT_EQ(replied.size(), 40u);
  EXPECT_TRUE(std::is_sorted(replied.begin(), replied.end()));
}

// Options to run with, or an exit code and a text the message must hold.
TEST(HelperOptionsTest, ParsesValidLinesAndExitsOnEverythingElse) {
  const TemporaryDirectory temp;
  writeRaw(temp.path() / "harborkeeper", "", fs::perms(0755));
  fs::create_symlink(temp.path() / "harborkeeper", temp.path() / "link");
  const std::string cli = fs::canonical(temp.path() / "harborkeeper").string();
  HelperOptions all;
  all.socketPath = "/s", all.stateDirectory = "/d", all.trustedClientsPath = "/t", all.fdesetupPath = "/a=b";
  all.trustedExecutables = {cli, cli}, all.logDestination = LogDestination::journal;
  const std::tuple<int, std::string, std::optional<HelperOptions>, std::vector<std::string>> cases[] = {
      {0, "", HelperOptions{}, {}},
      {0,
       "",
       all,
       {"--socket", "/s", "--state-dir=/d", "--trusted-clients", "/t", "--tool", "fdesetup=/a=b",
        "--trust-client", temp.path() / "link", "--trust-client", cli, "--log", "journal"}},
      {0, "1.3\n", std::nullopt, {"--version"}},
      {2, "'bin/fdesetup' is not an absolute path", std::nullopt, {"--tool", "fdesetup=bin/fdesetup"}},
      {2, "unknown tool 'launchctl'", std::nullopt, {"--tool", "launchctl=/bin/true"}},
      {2, "'fdesetup' is not NAME=PATH", std::nullopt, {"--tool", "fdesetup"}},
      {2, "'helper.sock' is not an absolute path", std::nullopt, {"--socket", "helper.sock"}},
      {2, "/nonexistent/x: No such file or directory", std::nullopt, {"--trust-client", "/nonexistent/x"}},
  };
  for (const auto& [exitCode, text, options, arguments] : cases) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    std::vector<const char*> argv{"harborkeeper-helper"};
    for (const std::string& argument : arguments) argv.push_back(argument.c_str());
    std::ostringstream output;
    std::ostringstream error;
    const HelperOptionsOutcome outcome = parseHelperOptions(int(argv.size()), argv.data(), output, error);
    EXPECT_EQ(std::pair(outcome.options, outcome.exitCode), std::pair(options, exitCode));
    EXPECT_EQ(exitCode == 0 ? error.str() : output.str(), "");
    const std::string message = exitCode == 0 ? output.str() : error.str();
    EXPECT_TRUE(exitCode == 0
                    ? message == text
                    : message.starts_with("harborkeeper-helper: ") && message.find(text) != std::string::npos)
        << message;
  }
}

}  // namespace
}  // namespace harborkeeper
