#include "helper/helper_service.h"

#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/ipc/frame_codec.h"
#include "core/platform/state_file_test_support.h"
#include "core/protection/file_vault_users.h"
#include "core/protection/protection_status_store.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using Kind = ipc::ProtocolError::Kind;

struct ToolRun {
  std::string executable;
  std::vector<std::string> arguments;
  std::optional<std::string> standardInput;
  std::optional<double> timeout;
  bool operator==(const ToolRun&) const = default;
};

// Calls and log lines come from one thread at a time, each seen after a
// future the test waits for, so no locks are needed.
class RecordingExecutor final : public CommandExecutor {
 public:
  explicit RecordingExecutor(CommandResult result) : result_(std::move(result)) {}
  CommandResult run(const std::string& executable, const std::vector<std::string>& arguments,
                    std::optional<std::string_view> standardInput,
                    std::optional<double> timeout) const noexcept override {
    runs.push_back({executable, arguments,
                    standardInput ? std::optional<std::string>(*standardInput) : std::nullopt, timeout});
    return result_;
  }
  mutable std::vector<ToolRun> runs;

 private:
  CommandResult result_;
};

struct RecordingLogger final : Logger {
  void log(LogLevel, std::string_view message) noexcept override { lines.emplace_back(message); }
  std::vector<std::string> lines;
};

struct HelperServiceTest : testing::Test {
  HelperService makeService(CommandResult toolResult = {}) {
    executor_ = std::make_shared<RecordingExecutor>(std::move(toolResult));
    HelperServiceConfiguration configuration;
    configuration.stateDirectory = stateDirectory_.string();
    configuration.fdesetupPath = "/opt/stand-in/fdesetup";
    configuration.stateOwner = ::getuid();
    return {configuration, executor_, logger_};
  }

  // Every reply handle() gives, in the order given.
  static std::vector<plist::Array> handle(HelperService& service, std::string selector,
                                          plist::Array arguments = {}) {
    std::vector<plist::Array> replies;
    service.handle({7, std::move(selector), std::move(arguments)},
                   [&](plist::Array reply) { replies.push_back(std::move(reply)); });
    return replies;
  }

  const TemporaryDirectory temp_;
  const fs::path stateDirectory_ = temp_.path() / "state";
  std::shared_ptr<RecordingExecutor> executor_;
  RecordingLogger logger_;
};

TEST_F(HelperServiceTest, DispatchTableServesEverySelectorOfTheInterfaceOnce) {
  const auto table = HelperService::dispatchTable();
  const auto interface = ipc::helperInterface();
  ASSERT_EQ(table.size(), interface.size());
  for (std::size_t i = 0; i < table.size(); ++i) EXPECT_EQ(table[i].selector, interface[i].selector);
}

TEST_F(HelperServiceTest, FileVaultUsersComeFromOneRunOfFdesetupList) {
  const std::tuple<const char*, CommandResult, FileVaultUserList> cases[] = {
      {"two users",
       {"alice,0A1B2C3D-0000-4000-8000-000000000001\nbob,0A1B2C3D-0000-4000-8000-000000000002", "", 0, false},
       {{{"alice", "0A1B2C3D-0000-4000-8000-000000000001"}, {"bob", "0A1B2C3D-0000-4000-8000-000000000002"}},
        {}}},
      {"silent failure", {"", "", 1, false}, {{}, "fdesetup list failed with exit code 1."}},
  };
  for (const auto& [name, toolResult, expected] : cases) {
    SCOPED_TRACE(name);
    HelperService service = makeService(toolResult);
    const std::vector<plist::Array> replies =
        handle(service, std::string(ipc::selectors::fileVaultUsersData));
    ASSERT_EQ(replies.size(), 1u);
    const std::optional<Bytes> data = ipc::readOptionalDataReply(replies[0]);
    ASSERT_TRUE(data.has_value());
    EXPECT_EQ(FileVaultUserList::decode(asStringView(*data)), expected);
    EXPECT_EQ(executor_->runs,
              (std::vector<ToolRun>{{"/opt/stand-in/fdesetup", {"list"}, std::nullopt, 30.0}}));
  }
}

// The stored bytes go out untouched, but only while the file passes the checks.
TEST_F(HelperServiceTest, ProtectionStatusIsTheStoredBytesOfASecureFile) {
  HelperService service = makeService();
  const ProtectionStatusStore store(stateDirectory_.string(), ::getuid());
  const fs::path file = stateDirectory_ / "ProtectionStatus.plist";
  const std::pair<const char*, std::function<bool()>> steps[] = {
      {"absent", [] { return false; }},
      {"stored",
       [&] {
         return store.store({HelperProtectionMode::persistent, true, Date(), "Armed."}), true;
       }},
      {"widened", [&] { return ::chmod(file.c_str(), 0644), false; }},
  };
  for (const auto& [name, step] : steps) {
    SCOPED_TRACE(name);
    const bool expectData = step();
    const std::vector<plist::Array> replies =
        handle(service, std::string(ipc::selectors::protectionStatusData));
    ASSERT_EQ(replies.size(), 1u);
    const std::optional<Bytes> data = ipc::readOptionalDataReply(replies[0]);
    EXPECT_EQ(data.has_value(), expectData);
    if (data) {
      EXPECT_EQ(toString(*data), contentOf(file));
    }
  }
}

TEST_F(HelperServiceTest, RequestsThatDoNotFitTheInterfaceRunNothing) {
  HelperService service = makeService();
  const std::tuple<std::string, plist::Array, Kind> cases[] = {
      {"armNextRestartWithReply:", {}, Kind::unknownSelector},
      {"helperVersionWithReply", {}, Kind::unknownSelector},
      {std::string(ipc::selectors::fileVaultUsersData), {"extra"}, Kind::badArguments},
      {std::string(ipc::selectors::helperVersion), {42}, Kind::badArguments},
  };
  for (const auto& [selector, arguments, kind] : cases) {
    SCOPED_TRACE(selector);
    bool replied = false;
    try {
      service.handle({1, selector, arguments}, [&](const plist::Array&) { replied = true; });
      ADD_FAILURE() << "no ProtocolError";
    } catch (const ipc::ProtocolError& error) {
      EXPECT_EQ(error.kind(), kind);
    }
    EXPECT_FALSE(replied);
  }
  EXPECT_TRUE(executor_->runs.empty());
}

// A direct request is answered at once even while an operation holds the queue.
TEST_F(HelperServiceTest, DirectRequestsDoNotWaitForTheOperationQueue) {
  HelperService service = makeService();
  std::promise<void> release;
  std::promise<void> started;
  ASSERT_TRUE(service.enqueue([&, gate = release.get_future().share()] {
    started.set_value();
    gate.wait();
  }));
  started.get_future().wait();
  std::promise<plist::Array> queuedReply;
  const DispatchEntry queued{"queued:", Dispatch::queued,
                             [](HelperService&, const plist::Array&) { return ipc::textReply("queued"); }};
  service.dispatch(queued, {}, [&](plist::Array reply) { queuedReply.set_value(std::move(reply)); });

  EXPECT_EQ(handle(service, std::string(ipc::selectors::helperVersion)),
            std::vector<plist::Array>{ipc::textReply("1.3")});
  auto pending = queuedReply.get_future();
  EXPECT_EQ(pending.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  release.set_value();
  EXPECT_EQ(pending.get(), ipc::textReply("queued"));
}

// Queued work runs one at a time in arrival order and each replies once; a
// failing one is logged without a reply and the queue carries on.
TEST_F(HelperServiceTest, QueuedWorkRunsInOrderAndRepliesOnce) {
  HelperService service = makeService();
  std::vector<std::int64_t> ran;
  std::vector<std::int64_t> replied;
  const DispatchEntry entry{"record:", Dispatch::queued, [&](HelperService&, const plist::Array& arguments) {
                              ran.push_back(*arguments.at(0).get<std::int64_t>());
                              if (ran.back() == 13) throw std::runtime_error("boom");
                              return plist::Array{ran.back()};
                            }};
  std::vector<std::int64_t> expected;
  for (std::int64_t value = 0; value < 40; ++value) {
    if (value != 13) expected.push_back(value);
    service.dispatch(entry, {value},
                     [&](plist::Array reply) { replied.push_back(*reply.at(0).get<std::int64_t>()); });
  }
  std::promise<void> done;
  service.enqueue([&] { done.set_value(); });
  done.get_future().wait();
  EXPECT_EQ(ran.size(), 40u);
  EXPECT_EQ(replied, expected);
  EXPECT_EQ(logger_.lines, std::vector<std::string>{"record: failed: boom"});

  service.shutdown();
  EXPECT_FALSE(service.enqueue([] {}));
  service.dispatch(entry, {99}, [&](const plist::Array&) { ADD_FAILURE() << "replied after shutdown"; });
}

}  // namespace
}  // namespace harborkeeper
