#include <unistd.h>

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

// The requests of the table, as a client sends them.
using Request = Result (*)(HelperService&);
const Request arm = [](HelperService& s) { return s.armNextRestart(" alice ", kOld); };
const Request enable = [](HelperService& s) { return s.enablePersistentProtection("alice", kNew, Date()); };
const Request rearm = [](HelperService& s) { return s.armPersistentProtection(); };
const Request disable = [](HelperService& s) { return s.disablePersistentProtection(); };

// Things that differ from the starting point of the table.
using Change = void (*)(ProtectionTest&);
void listing(ProtectionTest& t, CommandResult r) { t.tools->replies["fdesetup list"] = std::move(r); }
const Change twoUsers = [](ProtectionTest& t) { listing(t, {"alice\nbob", "", 0, false}); };
const Change otherUser = [](ProtectionTest& t) { listing(t, {"bob", "", 0, false}); };
const Change listFails = [](ProtectionTest& t) { listing(t, {"", "fdesetup: not root", 1, false}); };
const Change armFails = [](ProtectionTest& t) { t.tools->replies["fdesetup authrestart"].exitCode = 3; };
const Change passwordChanged = [](ProtectionTest& t) { t.accounts->alicePassword = "changed"; };
const Change newPasswordSet = [](ProtectionTest& t) { t.accounts->alicePassword = kNew; };
const Change deleteFails = [](ProtectionTest& t) { t.vault->deleteStatus = -36; };
const Change unresolved = [](ProtectionTest& t) { t.vault->resolveStatus = -25291; };
const Change nothingStored = [](ProtectionTest& t) { t.vault->item.reset(); };
const Change unusableStored = [](ProtectionTest& t) { t.storeCredential("\xff\xfe"); };
const Change persistentBefore = [](ProtectionTest& t) { t.store.store({Mode::persistent, true, {}, "x"}); };

const std::string kArmed = "Harborkeeper armed authenticated restart for the next restart.";
const std::string kRejected = "The selected user's password was rejected.";
const std::string kCount =
    "Harborkeeper v1 requires exactly one FileVault-enabled local user before arming authenticated restart.";
const std::string kUnverifiable =
    "Harborkeeper could not verify FileVault users before arming authenticated restart.";
const std::string kOtherUser =
    "The selected FileVault user no longer matches the detected local FileVault user. Refresh status and "
    "choose the detected user.";
const std::string kArmFailed = "fdesetup authrestart failed with exit code 3.";
const std::string kMissing = "No persistent Harborkeeper credential is stored.";
const std::string kUnresolved = "The System Keychain could not be resolved. OSStatus -25291.";
const std::string kDisabled =
    "Persistent protection is disabled. This does not cancel an authenticated restart that macOS has already "
    "armed.";
const std::string kUnremovable = "The stored Harborkeeper credential could not be removed. OSStatus -36.";
const std::string kUnclearable =
    "Harborkeeper could not clear the previous automatic unlock state. " + kUnremovable;

// Each row changes one or two things from the starting point, runs one
// request and checks the reply, the status left behind (recorded in `mode`
// with the reply's flag and message, or no file) and whether the stored
// password is still there. Paths a real daemon can be driven down (success,
// a rejected re-arm, failing tools, storage faults) are proven end to end by
// restart_protection_test and fault_injection_test instead.
TEST_F(ProtectionTest, StateTable) {
  struct Row {  // NOLINT(clang-analyzer-optin.performance.Padding): fields in the order a row reads
    Request request;
    std::vector<Change> changes;
    bool success;
    std::string message;
    bool credentialKept;
    std::optional<Mode> recordedAs;
  };
  const std::optional<Mode> once = Mode::nextRestart;
  const std::optional<Mode> persistent = Mode::persistent;
  const std::optional<Mode> noFile;
  const Row rows[] = {
      {arm, {}, true, kArmed, true, once},
      {arm, {twoUsers}, false, kCount, true, once},
      {arm, {passwordChanged}, false, kRejected, true, once},
      // The earlier credential is gone before the password is looked at.
      {enable, {}, false, kRejected, false, persistent},
      {enable, {otherUser}, false, kOtherUser, false, persistent},
      // Not checkable is not wrong: the credential stays.
      {enable, {listFails}, false, kUnverifiable, true, persistent},
      {enable, {deleteFails}, false, kUnclearable, true, persistent},
      {enable, {newPasswordSet, armFails}, false, kArmFailed, false, persistent},
      // Never enabled, but a persistent status before: it is overwritten.
      {rearm, {nothingStored, persistentBefore}, false, kMissing, false, persistent},
      {rearm, {unusableStored}, false, "The stored Harborkeeper credential is invalid.", false, persistent},
      // Unreadable now is not gone: kept for the next launch.
      {rearm, {unresolved}, false, kUnresolved, true, persistent},
      {disable, {nothingStored}, true, kDisabled, false, noFile},
      {disable, {deleteFails}, false, kUnremovable, true, noFile},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "row " << &row - rows << ": " << row.message);
    reset();
    for (const Change change : row.changes) change(*this);
    EXPECT_EQ(row.request(service()), (Result{row.success, row.message}));
    const auto expected =
        row.recordedAs
            ? std::optional(HelperProtectionStatus{*row.recordedAs, row.success, kNow, row.message})
            : std::nullopt;
    EXPECT_EQ(status(), expected);
    const std::optional<std::string> password =
        vault->item ? std::optional(vault->item->passwordData) : std::nullopt;
    EXPECT_EQ(password, row.credentialKept ? std::optional(kOld) : std::nullopt);
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

}  // namespace
}  // namespace harborkeeper
