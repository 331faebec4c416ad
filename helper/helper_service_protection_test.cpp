#include <unistd.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/platform/command_runner_test_support.h"
#include "core/platform/state_file_test_support.h"
#include "helper/helper_service.h"
#include "helper/testing/fake_credential_vault.h"
#include "helper/testing/fake_heartbeat.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using Result = ipc::HelperCommandResult;
using Mode = HelperProtectionMode;

struct Accounts final : AccountDirectory {
  bool verifyPassword(const std::string& username, std::string_view password) const noexcept override {
    ++checks;
    return username == "alice" && password == alicePassword;
  }
  std::string alicePassword = " s3cret\n";
  mutable int checks = 0;
};

const Date kNow(std::chrono::seconds(1'800'000'000));

const std::string kOld = " s3cret\n", kNew = "new pw";

struct ProtectionTest : testing::Test {
  HelperService& service() {
    if (!service_) {
      service_ = std::make_unique<HelperService>(
          HelperServiceConfiguration{
              .stateDirectory = state, .fdesetupPath = "/stand-in/fdesetup", .stateOwner = ::getuid()},
          HelperServiceDependencies{tools, vault, accounts, std::make_shared<FixedClock>(kNow),
                                    FakeHeartbeat{}.manager(state, ::getuid(), *logger)},
          *logger);
    }
    return *service_;
  }
  // Alice is the one FileVault user, her credential is stored and a one-time status recorded.
  void reset() {
    *vault = FakeVault{};
    *accounts = Accounts{};
    tools->replies = {{"fdesetup list", {"alice,5B6C1E8A", "", 0, false}}, {"fdesetup authrestart", {}}};
    storeCredential(kOld);
    store.store({Mode::nextRestart, true, Date(), "earlier"});
  }
  void storeCredential(const std::string& password) {
    vault->item = CredentialItem{};
    vault->item->account = "alice";
    vault->item->passwordData = password;
  }
  [[nodiscard]] std::optional<HelperProtectionStatus> status() const {
    const auto data = store.loadData();
    return data ? std::optional(HelperProtectionStatus::decode(asStringView(*data))) : std::nullopt;
  }

  const TemporaryDirectory temp;
  const fs::path state = temp.path() / "state";
  const ProtectionStatusStore store{state, ::getuid()};
  std::shared_ptr<RecordingTools> tools = std::make_shared<RecordingTools>();
  std::shared_ptr<FakeVault> vault = std::make_shared<FakeVault>();
  std::shared_ptr<Accounts> accounts = std::make_shared<Accounts>();
  const std::unique_ptr<Logger> logger = makeProcessLogger(LogDestination::standardError);
  std::unique_ptr<HelperService> service_;
};

enum class Request { arm, enable, rearm, disable };
// Things that differ from the starting point of the table.
using Change = void (*)(ProtectionTest&);
void listing(ProtectionTest& t, CommandResult r) { t.tools->replies["fdesetup list"] = std::move(r); }
void arming(ProtectionTest& t, CommandResult r) { t.tools->replies["fdesetup authrestart"] = std::move(r); }
const Change twoUsers = [](ProtectionTest& t) { listing(t, {"alice\nbob", "", 0, false}); };
const Change otherUser = [](ProtectionTest& t) { listing(t, {"bob", "", 0, false}); };
const Change listFails = [](ProtectionTest& t) { listing(t, {"", "fdesetup: not root", 1, false}); };
const Change armFails = [](ProtectionTest& t) { arming(t, {"", "", 3, false}); };
const Change armFailsSaying = [](ProtectionTest& t) { arming(t, {"no", "", 3, false}); };
const Change passwordChanged = [](ProtectionTest& t) { t.accounts->alicePassword = "changed"; };
const Change newPasswordSet = [](ProtectionTest& t) { t.accounts->alicePassword = kNew; };
const Change deleteFails = [](ProtectionTest& t) { t.vault->deleteStatus = -36; };
const Change addFails = [](ProtectionTest& t) { t.vault->addStatus = -25291; };
const Change copyFails = [](ProtectionTest& t) { t.vault->copyStatus = -26275; };
const Change unresolved = [](ProtectionTest& t) { t.vault->resolveStatus = -25291; };
const Change nothingStored = [](ProtectionTest& t) { t.vault->item.reset(); };
const Change unusableStored = [](ProtectionTest& t) { t.storeCredential("\xff\xfe"); };
const Change persistentBefore = [](ProtectionTest& t) {
  t.store.store({Mode::persistent, true, Date(), "x"});
};

Result run(HelperService& service, Request request) {
  switch (request) {
    case Request::arm:
      return service.armNextRestart(" alice ", kOld);
    case Request::enable:
      return service.enablePersistentProtection("alice", kNew, Date());
    case Request::rearm:
      return service.armPersistentProtection();
    case Request::disable:
      return service.disablePersistentProtection();
  }
  return {};
}

const std::string kArmed = "Harborkeeper armed authenticated restart for the next restart.";
const std::string kRejected = "The selected user's password was rejected.";
const std::string kCount =
    "Harborkeeper v1 requires exactly one FileVault-enabled local user before arming authenticated restart.";
const std::string kUnverifiable =
    "Harborkeeper could not verify FileVault users before arming authenticated restart.";
const std::string kArmFailed = "fdesetup authrestart failed with exit code 3.";
const std::string kMissing = "No persistent Harborkeeper credential is stored.";
const std::string kDisabled =
    "Persistent protection is disabled. This does not cancel an authenticated restart that macOS has already "
    "armed.";
const std::string kUnremovable = "The stored Harborkeeper credential could not be removed. OSStatus -36.";

// Each row changes one or two things from the starting point, runs one
// request and checks the reply, the status left behind (recorded in `mode`
// with the reply's flag and message, or no file) and the stored password.
TEST_F(ProtectionTest, StateTable) {
  enum Credential { kept, replaced, gone };
  struct Row {
    Request request;
    std::vector<Change> changes;
    bool success;
    std::string message;
    std::optional<Mode> recordedAs;
    Credential credential;
  };
  using enum Request;
  const std::optional<Mode> once = Mode::nextRestart, persistent = Mode::persistent, noFile;
  const Row rows[] = {
      {arm, {}, true, kArmed, once, kept},
      {arm, {twoUsers}, false, kCount, once, kept},
      {arm, {passwordChanged}, false, kRejected, once, kept},
      {arm, {listFails}, false, kUnverifiable, once, kept},
      {arm, {armFails}, false, kArmFailed, once, kept},
      {enable,
       {newPasswordSet},
       true,
       "Persistent protection is enabled and the next restart is armed.",
       persistent,
       replaced},
      // The earlier credential is gone before the password is looked at.
      {enable, {}, false, kRejected, persistent, gone},
      {enable,
       {otherUser},
       false,
       "The selected FileVault user no longer matches the detected local FileVault user. Refresh status and "
       "choose "
       "the detected user.",
       persistent,
       gone},
      // Not checkable is not wrong: the credential stays.
      {enable, {listFails}, false, kUnverifiable, persistent, kept},
      {enable,
       {deleteFails},
       false,
       "Harborkeeper could not clear the previous automatic unlock state. " + kUnremovable,
       persistent,
       kept},
      {enable, {newPasswordSet, armFails}, false, kArmFailed, persistent, gone},
      {enable,
       {newPasswordSet, addFails},
       false,
       "Authenticated restart was armed for the next restart, but persistent protection could not be stored. "
       "The "
       "credential could not be stored in the System Keychain. OSStatus -25291.",
       persistent,
       gone},
      {rearm, {}, true, kArmed, persistent, kept},
      // Never enabled: the launch leaves nothing behind, a one-time status included.
      {rearm, {nothingStored}, false, kMissing, noFile, gone},
      {rearm, {nothingStored, persistentBefore}, false, kMissing, persistent, gone},
      {rearm, {unusableStored}, false, "The stored Harborkeeper credential is invalid.", persistent, gone},
      // Unreadable now is not gone: kept for the next launch.
      {rearm,
       {copyFails},
       false,
       "The stored credential could not be read from the System Keychain. OSStatus -26275.",
       persistent,
       kept},
      {rearm,
       {unresolved},
       false,
       "The System Keychain could not be resolved. OSStatus -25291.",
       persistent,
       kept},
      {rearm, {passwordChanged}, false, kRejected, persistent, gone},
      {rearm, {twoUsers}, false, kCount, persistent, gone},
      {rearm, {armFailsSaying}, false, "no", persistent, kept},
      {disable, {}, true, kDisabled, noFile, gone},
      {disable, {nothingStored}, true, kDisabled, noFile, gone},
      {disable, {deleteFails}, false, kUnremovable, noFile, kept},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "request " << int(row.request) << ": " << row.message);
    reset();
    for (const Change change : row.changes) change(*this);
    EXPECT_EQ(run(service(), row.request), (Result{row.success, row.message}));
    const auto expected =
        row.recordedAs
            ? std::optional(HelperProtectionStatus{*row.recordedAs, row.success, kNow, row.message})
            : std::nullopt;
    EXPECT_EQ(status(), expected);
    const std::optional<std::string> password =
        vault->item ? std::optional(vault->item->passwordData) : std::nullopt;
    EXPECT_EQ(password,
              row.credential == gone ? std::nullopt : std::optional(row.credential == kept ? kOld : kNew));
  }
}

// Two users are refused before the password is looked at or fdesetup armed.
TEST_F(ProtectionTest, RefusalsComeBeforeThePasswordCheck) {
  reset();
  twoUsers(*this);
  (void)service().armNextRestart("alice", "pw");
  (void)service().enablePersistentProtection("alice", "pw", Date());
  EXPECT_EQ(accounts->checks, 0);
  EXPECT_EQ(tools->runs.size(), 2U) << "only the two user lists ran";
}

// A status that cannot be written turns a success into a failure that says so.
TEST_F(ProtectionTest, UnrecordableSuccessIsReportedAndPersistentStateCleared) {
  reset();
  fs::remove_all(state);
  writeRaw(state, "a file where the directory belongs", fs::perms(0600));
  const std::string storeError =
      "Harborkeeper could not record protection proof. Harborkeeper could not write ";
  EXPECT_TRUE(service()
                  .armNextRestart("alice", kOld)
                  .message.starts_with("Authenticated restart was armed, but " + storeError));
  EXPECT_TRUE(vault->item);
  const Result persistent = service().armPersistentProtection();
  EXPECT_TRUE(persistent.message.starts_with("Persistent protection was armed, but " + storeError))
      << persistent.message;
  EXPECT_FALSE(persistent.success);
  EXPECT_FALSE(vault->item);
}

}  // namespace
}  // namespace harborkeeper
