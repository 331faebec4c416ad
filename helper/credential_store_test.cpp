#include "helper/credential_store.h"

#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/foundation/base64.h"
#include "core/foundation/plist.h"
#include "core/platform/state_file_test_support.h"
#include "core/protection/helper_constants.h"
#include "helper/testing/fake_credential_vault.h"
#include "helper/testing/recording_logger.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
const std::string kService(HelperConstants::persistentCredentialService);
const std::string kInvalid = "The stored Harborkeeper credential is invalid.";

// The other failures' texts are proven through the helper service's state
// table and the daemon's fault tests.
TEST(CredentialStoreTest, StoreRefusesBeforeTouchingTheVaultAndKeepsTheVaultsStatus) {
  const struct {
    int resolveStatus, deleteStatus;
    std::string account, password, expected;
  } cases[] = {
      {0, -36, "alice", "secret", "The stored Harborkeeper credential could not be removed. OSStatus -36."},
      {-1, 0, " \n\u00a0\u3000", "secret", "Choose a FileVault user."},
      {-1, 0, "alice", "", "Enter the selected user's password."},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.expected);
    auto vault = std::make_shared<FakeVault>();
    vault->resolveStatus = test.resolveStatus;
    vault->deleteStatus = test.deleteStatus;
    EXPECT_EQ(
        outcome<CredentialStoreError>([&] { CredentialStore(vault).store(test.account, test.password); }),
        test.expected);
  }
}

TEST(CredentialStoreTest, StoringReplacesTheOneItemWithATrimmedAccount) {
  auto vault = std::make_shared<FakeVault>();
  CredentialStore store(vault);
  store.store("alice", "first");
  store.store(" \talice\n", "  second pass  ");
  const std::string remove = "delete " + kService;
  const std::string add = "add " + kService;
  EXPECT_EQ(vault->calls, (std::vector<std::string>{"resolve", remove, add, "resolve", remove, add}));
  EXPECT_EQ(vault->item.value().account, "alice");
  EXPECT_EQ(vault->item->passwordData, "  second pass  ");
}

// An empty account and other bytes that are not UTF-8 are in fuzz_sealed_credential's corpus.
TEST(CredentialStoreTest, UnusableStoredItemsAreInvalid) {
  // An empty password, a surrogate, a code point past U+10FFFF.
  for (const auto& [password, valid] :
       {std::pair<std::string, bool>{"", true}, {"\xed\xa0\x80", false}, {"\xf4\x90\x80\x80", false}}) {
    SCOPED_TRACE(testing::PrintToString(password));
    auto vault = std::make_shared<FakeVault>();
    vault->item.emplace();
    vault->item->account = "alice";
    vault->item->passwordData = password;
    EXPECT_EQ(outcome<CredentialStoreError>([&vault] { return CredentialStore(vault).load().password; }),
              valid ? password : kInvalid);
  }
}

// The vault over a stand-in sealing tool that checks its arguments.
struct SystemdCredsVaultTest : testing::Test {
  SystemdCredsVaultTest() { installTool(); }
  void TearDown() override {
    for (const std::string& line : logger_.lines()) {
      EXPECT_TRUE(line.find("ünï") == std::string::npos && line.find("line 2") == std::string::npos) << line;
    }
  }
  void installTool() const {
    fs::copy_file(HARBORKEEPER_FAKE_SYSTEMD_CREDS, tool_, fs::copy_options::overwrite_existing);
    fs::permissions(tool_, fs::perms(0755));
  }
  // Seals `item` the way the stand-in does, bypassing the vault.
  void plant(const plist::Dictionary& item) const {
    file_.write(toBytes("SEALED\n" + base64::encode(plist::encode(item, plist::Format::xml)) + "\n"));
  }

  const std::string kPassword = "  it's \"q\" `b` \\ & <x> ünï\nline 2  ";
  const TemporaryDirectory temp_;
  const fs::path tool_ = temp_.path() / "systemd-creds", state_ = temp_.path() / "state";
  const fs::path path_ = state_ / "PersistentCredential.cred";
  const SecureStateFile file_{state_.string(), "PersistentCredential.cred", ::getuid()};
  RecordingLogger logger_;
  std::shared_ptr<SystemdCredsVault> vault_ = std::make_shared<SystemdCredsVault>(
      state_.string(), ::getuid(), tool_.string(), std::make_shared<CommandRunner>(10.0), logger_);
  CredentialStore store_{vault_};
};

// An awkward password sealed, unsealed and removed again, with a private file
// that does not hold it in the clear, is restart_protection_test's, with the
// real systemd-creds.
TEST_F(SystemdCredsVaultTest, FailuresKeepTheirStatus) {
  const std::string unreadable =
      "The stored credential could not be read from the System Keychain. OSStatus ";
  const std::string unremovable = "The stored Harborkeeper credential could not be removed. OSStatus ";
  const std::string unresolved = "The System Keychain could not be resolved. OSStatus -25291.";
  const auto valid = [](std::string service, Bytes password) {
    return plist::Dictionary{{"service", std::move(service)},
                             {"account", "root"},
                             {"label", "l"},
                             {"description", "d"},
                             {"accessibility", "a"},
                             {"password", std::move(password)}};
  };
  plist::Dictionary noAccessibility = valid(kService, toBytes("pw"));
  noAccessibility.erase("accessibility");
  const struct {
    const char* name;
    std::function<void()> spoil;
    std::string onLoad, onRemove;
  } cases[] = {
      {"other service", [&] { plant(valid("other", toBytes("pw"))); }, unreadable + "-26275.", ""},
      {"missing key", [&] { plant(noAccessibility); }, unreadable + "-26275.", ""},
      {"widened", [&] { fs::permissions(path_, fs::perms(0644)); }, unreadable + "-36.",
       unremovable + "-36."},
      {"link", [&] { fs::rename(path_, state_ / "real"), fs::create_symlink("real", path_); },
       unreadable + "-36.", unremovable + "-36."},
      {"tool missing", [&] { fs::remove(tool_); }, unresolved, unresolved},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    fs::remove_all(state_), fs::remove(temp_.path() / "fail"), installTool();
    store_.store("root", kPassword);
    test.spoil();
    EXPECT_EQ(outcome<CredentialStoreError>([&] { (void)store_.load(); }), test.onLoad);
    EXPECT_EQ(outcome<CredentialStoreError>([&] { store_.remove(); }), test.onRemove);
  }
  // Sealing needs a working tool too.
  fs::remove(tool_);
  EXPECT_EQ(outcome<CredentialStoreError>([&] { store_.store("root", kPassword); }), unresolved);
  installTool(), writeRaw(temp_.path() / "fail", "");
  EXPECT_EQ(outcome<CredentialStoreError>([&] { store_.store("root", kPassword); }),
            "The credential could not be stored in the System Keychain. OSStatus -25291.");
  EXPECT_EQ(logger_.lines().back(),
            "Could not seal the persistent credential: systemd-creds exited with status 1: "
            "Failed to encrypt credential: no usable key.");
}

}  // namespace
}  // namespace harborkeeper
