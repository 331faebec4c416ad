#include <unistd.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/platform/command_runner_test_support.h"
#include "core/platform/state_file_test_support.h"
#include "helper/helper_service.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using Result = ipc::HelperCommandResult;
using Mode = HelperProtectionMode;

// One item at most, with a status to fail each operation with.
struct MemoryVault final : CredentialVault {
  OSStatus resolve() noexcept override { return resolveStatus; }
  OSStatus deleteItems(std::string_view) noexcept override {
    if (deleteStatus != 0) return deleteStatus;
    const bool had = item.has_value();
    item.reset();
    return had ? KeychainStatus::success : KeychainStatus::itemNotFound;
  }
  OSStatus addItem(const CredentialItem& added) noexcept override {
    if (addStatus == 0) item = added;
    return addStatus;
  }
  OSStatus copyItem(std::string_view, std::optional<CredentialItem>& copied) noexcept override {
    if (copyStatus != 0) return copyStatus;
    copied = item;
    return item ? KeychainStatus::success : KeychainStatus::itemNotFound;
  }
  std::optional<CredentialItem> item;
  OSStatus resolveStatus = 0, deleteStatus = 0, addStatus = 0, copyStatus = 0;
};

struct Accounts final : AccountDirectory {
  bool verifyPassword(const std::string& username, std::string_view password) const noexcept override {
    ++checks;
    const auto found = passwords.find(username);
    return found != passwords.end() && found->second == password;
  }
  std::map<std::string, std::string> passwords{{"alice", " s3cret\n"}};
  mutable int checks = 0;
};

struct FixedClock final : Clock {
  Date now() const noexcept override { return Date(std::chrono::seconds(1'800'000'000)); }
  std::chrono::nanoseconds uptime() const noexcept override { return {}; }
};

const CommandResult oneUser{"alice,5B6C1E8A", "", 0, false};
const CommandResult twoUsers{"alice\nbob", "", 0, false};
const CommandResult listFails{"", "fdesetup: not root", 1, false};
const CommandResult armed{"", "", 0, false};

constexpr std::string_view armedText = "Harborkeeper armed authenticated restart for the next restart.";
constexpr std::string_view enabledText = "Persistent protection is enabled and the next restart is armed.";
constexpr std::string_view rejectedText = "The selected user's password was rejected.";
constexpr std::string_view countText =
    "Harborkeeper v1 requires exactly one FileVault-enabled local user before arming authenticated restart.";
constexpr std::string_view mismatchText =
    "The selected FileVault user no longer matches the detected local FileVault user. Refresh status and "
    "choose "
    "the detected user.";
constexpr std::string_view unverifiableText =
    "Harborkeeper could not verify FileVault users before arming authenticated restart.";
constexpr std::string_view missingText = "No persistent Harborkeeper credential is stored.";
constexpr std::string_view disabledText =
    "Persistent protection is disabled. This does not cancel an authenticated restart that macOS has already "
    "armed.";

struct ProtectionTest : testing::Test {
  HelperService& service() {
    if (!service_) {
      service_ = std::make_unique<HelperService>(
          HelperServiceConfiguration{
              .stateDirectory = state, .fdesetupPath = "/stand-in/fdesetup", .stateOwner = ::getuid()},
          HelperServiceDependencies{tools, vault, accounts, std::make_shared<FixedClock>()}, *logger);
    }
    return *service_;
  }
  void storeCredential(const std::string& username, const std::string& password) {
    vault->item = CredentialItem{};
    vault->item->account = username;
    vault->item->passwordData = password;
  }
  void recordStatus(Mode mode, bool succeeded = true) {
    ProtectionStatusStore(state, ::getuid()).store({mode, succeeded, Date(), "earlier"});
  }
  [[nodiscard]] std::optional<HelperProtectionStatus> status() const {
    const auto data = ProtectionStatusStore(state, ::getuid()).loadData();
    if (!data) return std::nullopt;
    return HelperProtectionStatus::decode(asStringView(*data));
  }
  [[nodiscard]] std::optional<std::string> storedPassword() const {
    return vault->item ? std::optional(vault->item->passwordData) : std::nullopt;
  }

  const TemporaryDirectory temp;
  const fs::path state = temp.path() / "state";
  std::shared_ptr<RecordingTools> tools = std::make_shared<RecordingTools>();
  std::shared_ptr<MemoryVault> vault = std::make_shared<MemoryVault>();
  std::shared_ptr<Accounts> accounts = std::make_shared<Accounts>();
  const std::unique_ptr<Logger> logger = makeProcessLogger(LogDestination::standardError);
  std::unique_ptr<HelperService> service_;
};

HelperProtectionStatus recorded(Mode mode, bool succeeded, std::string_view message) {
  return {mode, succeeded, Date(std::chrono::seconds(1'800'000'000)), std::string(message)};
}

// Each row starts from a stored credential for alice and a recorded one-time
// status, changes one thing, runs one request and checks the reply, the
// status left behind and the credential left behind.
TEST_F(ProtectionTest, StateTable) {
  struct Row {
    const char* name;
    std::function<void(ProtectionTest&)> setUp;
    std::function<Result(HelperService&)> request;
    Result reply;
    std::optional<HelperProtectionStatus> status;  // nullopt: no file
    std::optional<std::string> credential;         // the stored password
  };
  const auto arm = [](HelperService& s) { return s.armNextRestart(" alice ", " s3cret\n"); };
  const auto enable = [](HelperService& s) {
    return s.enablePersistentProtection("alice", "new pw", Date());
  };
  const auto rearm = [](HelperService& s) { return s.armPersistentProtection(); };
  const auto disable = [](HelperService& s) { return s.disablePersistentProtection(); };
  const auto none = [](ProtectionTest&) {};
  const std::string old = " s3cret\n";
  const Row rows[] = {
      {"arm", none, arm, {true, std::string(armedText)}, recorded(Mode::nextRestart, true, armedText), old},
      {"arm, two users",
       [](auto& t) { t.tools->replies["fdesetup list"] = twoUsers; },
       arm,
       {false, std::string(countText)},
       recorded(Mode::nextRestart, false, countText),
       old},
      {"arm, wrong password",
       [](auto& t) { t.accounts->passwords["alice"] = "other"; },
       arm,
       {false, std::string(rejectedText)},
       recorded(Mode::nextRestart, false, rejectedText),
       old},
      {"arm, list fails",
       [](auto& t) { t.tools->replies["fdesetup list"] = listFails; },
       arm,
       {false, std::string(unverifiableText)},
       recorded(Mode::nextRestart, false, unverifiableText),
       old},
      {"arm, fdesetup fails",
       [](auto& t) {
         t.tools->replies["fdesetup authrestart"] = {"", "", 3, false};
       },
       arm,
       {false, "fdesetup authrestart failed with exit code 3."},
       recorded(Mode::nextRestart, false, "fdesetup authrestart failed with exit code 3."),
       old},
      {"enable",
       [](auto& t) { t.accounts->passwords["alice"] = "new pw"; },
       enable,
       {true, std::string(enabledText)},
       recorded(Mode::persistent, true, enabledText),
       "new pw"},
      // The earlier credential is gone before the password was looked at.
      {"enable, wrong password",
       none,
       enable,
       {false, std::string(rejectedText)},
       recorded(Mode::persistent, false, rejectedText),
       std::nullopt},
      {"enable, other user",
       [](auto& t) {
         t.tools->replies["fdesetup list"] = {"bob", "", 0, false};
       },
       enable,
       {false, std::string(mismatchText)},
       recorded(Mode::persistent, false, mismatchText),
       std::nullopt},
      // Not checkable is not wrong: the credential stays.
      {"enable, list fails",
       [](auto& t) { t.tools->replies["fdesetup list"] = listFails; },
       enable,
       {false, std::string(unverifiableText)},
       recorded(Mode::persistent, false, unverifiableText),
       old},
      {"enable, clear fails",
       [](auto& t) { t.vault->deleteStatus = -36; },
       enable,
       {false,
        "Harborkeeper could not clear the previous automatic unlock state. The stored Harborkeeper "
        "credential "
        "could not be removed. OSStatus -36."},
       recorded(Mode::persistent, false,
                "Harborkeeper could not clear the previous automatic unlock state. The stored Harborkeeper "
                "credential could not be removed. OSStatus -36."),
       old},
      {"enable, fdesetup fails",
       [](auto& t) {
         t.accounts->passwords["alice"] = "new pw";
         t.tools->replies["fdesetup authrestart"] = {"", "", 3, false};
       },
       enable,
       {false, "fdesetup authrestart failed with exit code 3."},
       recorded(Mode::persistent, false, "fdesetup authrestart failed with exit code 3."),
       std::nullopt},
      {"enable, sealing fails",
       [](auto& t) {
         t.accounts->passwords["alice"] = "new pw";
         t.vault->addStatus = -25291;
       },
       enable,
       {false,
        "Authenticated restart was armed for the next restart, but persistent protection could not be "
        "stored. "
        "The credential could not be stored in the System Keychain. OSStatus -25291."},
       recorded(
           Mode::persistent, false,
           "Authenticated restart was armed for the next restart, but persistent protection could not be "
           "stored. The credential could not be stored in the System Keychain. OSStatus -25291."),
       std::nullopt},
      {"rearm",
       none,
       rearm,
       {true, std::string(armedText)},
       recorded(Mode::persistent, true, armedText),
       old},
      // Never enabled: the launch leaves nothing behind, a one-time status included.
      {"rearm, nothing stored",
       [](auto& t) { t.vault->item.reset(); },
       rearm,
       {false, std::string(missingText)},
       std::nullopt,
       std::nullopt},
      {"rearm, nothing stored after persistent",
       [](auto& t) {
         t.vault->item.reset();
         t.recordStatus(Mode::persistent);
       },
       rearm,
       {false, std::string(missingText)},
       recorded(Mode::persistent, false, missingText),
       std::nullopt},
      {"rearm, unusable credential",
       [](auto& t) { t.storeCredential("alice", "\xff\xfe"); },
       rearm,
       {false, "The stored Harborkeeper credential is invalid."},
       recorded(Mode::persistent, false, "The stored Harborkeeper credential is invalid."),
       std::nullopt},
      // Unreadable now is not gone: kept for the next launch.
      {"rearm, unreadable credential",
       [](auto& t) { t.vault->copyStatus = -26275; },
       rearm,
       {false, "The stored credential could not be read from the System Keychain. OSStatus -26275."},
       recorded(Mode::persistent, false,
                "The stored credential could not be read from the System Keychain. OSStatus -26275."),
       old},
      {"rearm, vault unavailable",
       [](auto& t) { t.vault->resolveStatus = -25291; },
       rearm,
       {false, "The System Keychain could not be resolved. OSStatus -25291."},
       recorded(Mode::persistent, false, "The System Keychain could not be resolved. OSStatus -25291."),
       old},
      {"rearm, password changed",
       [](auto& t) { t.accounts->passwords["alice"] = "changed"; },
       rearm,
       {false, std::string(rejectedText)},
       recorded(Mode::persistent, false, rejectedText),
       std::nullopt},
      {"rearm, two users",
       [](auto& t) { t.tools->replies["fdesetup list"] = twoUsers; },
       rearm,
       {false, std::string(countText)},
       recorded(Mode::persistent, false, countText),
       std::nullopt},
      {"rearm, fdesetup fails",
       [](auto& t) {
         t.tools->replies["fdesetup authrestart"] = {"no", "", 3, false};
       },
       rearm,
       {false, "no"},
       recorded(Mode::persistent, false, "no"),
       old},
      {"disable", none, disable, {true, std::string(disabledText)}, std::nullopt, std::nullopt},
      {"disable, nothing stored",
       [](auto& t) { t.vault->item.reset(); },
       disable,
       {true, std::string(disabledText)},
       std::nullopt,
       std::nullopt},
      {"disable, delete fails",
       [](auto& t) { t.vault->deleteStatus = -36; },
       disable,
       {false, "The stored Harborkeeper credential could not be removed. OSStatus -36."},
       std::nullopt,
       old},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ProtectionTest& t = *this;
    *t.vault = MemoryVault{};
    *t.accounts = Accounts{};
    t.tools->replies = {{"fdesetup list", oneUser}, {"fdesetup authrestart", armed}};
    t.storeCredential("alice", old);
    ProtectionStatusStore(state, ::getuid()).clear();
    t.recordStatus(Mode::nextRestart);
    row.setUp(t);
    EXPECT_EQ(row.request(service()), row.reply);
    EXPECT_EQ(status(), row.status);
    EXPECT_EQ(storedPassword(), row.credential);
  }
}

// Two users are refused before the password is looked at or fdesetup armed.
TEST_F(ProtectionTest, RefusalsComeBeforeThePasswordCheck) {
  tools->replies["fdesetup list"] = twoUsers;
  (void)service().armNextRestart("alice", "pw");
  (void)service().enablePersistentProtection("alice", "pw", Date());
  EXPECT_EQ(accounts->checks, 0);
  EXPECT_EQ(tools->runsOf("fdesetup authrestart"), 0U);
  EXPECT_EQ(tools->runsOf("fdesetup list"), 2U);
}

// A status that cannot be written turns a success into a failure that says so.
TEST_F(ProtectionTest, UnrecordableSuccessIsReportedAndPersistentStateCleared) {
  tools->replies = {{"fdesetup list", oneUser}, {"fdesetup authrestart", armed}};
  storeCredential("alice", " s3cret\n");
  writeRaw(state, "a file where the directory belongs", fs::perms(0600));
  const std::string storeError = "Harborkeeper could not write protection status. ";
  const Result oneTime = service().armNextRestart("alice", " s3cret\n");
  EXPECT_FALSE(oneTime.success);
  EXPECT_TRUE(oneTime.message.starts_with(
      "Authenticated restart was armed, but Harborkeeper could not record protection proof. " + storeError))
      << oneTime.message;
  EXPECT_TRUE(storedPassword());
  const Result persistent = service().armPersistentProtection();
  EXPECT_TRUE(persistent.message.starts_with(
      "Persistent protection was armed, but Harborkeeper could not record protection proof. " + storeError))
      << persistent.message;
  EXPECT_EQ(storedPassword(), std::nullopt);
}

}  // namespace
}  // namespace harborkeeper
