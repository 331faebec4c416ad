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

TEST(CredentialStoreTest, EveryErrorHasItsExactText) {
  const auto store = [](CredentialStore& s) { s.store("alice", "secret"); };
  const auto load = [](CredentialStore& s) { (void)s.load(); };
  const auto remove = [](CredentialStore& s) { s.remove(); };
  const struct {
    const char* name;
    std::function<void(FakeVault&)> setUp;
    std::function<void(CredentialStore&)> action;
    std::string expected;
  } cases[] = {
      {"unresolved", [](FakeVault& v) { v.resolveStatus = -25291; }, load,
       "The System Keychain could not be resolved. OSStatus -25291."},
      {"add fails", [](FakeVault& v) { v.addStatus = -34; }, store,
       "The credential could not be stored in the System Keychain. OSStatus -34."},
      {"copy fails", [](FakeVault& v) { v.copyStatus = -26275; }, load,
       "The stored credential could not be read from the System Keychain. OSStatus -26275."},
      {"delete fails on store", [](FakeVault& v) { v.deleteStatus = -36; }, store,
       "The stored Harborkeeper credential could not be removed. OSStatus -36."},
      {"delete fails on remove", [](FakeVault& v) { v.deleteStatus = 7; }, remove,
       "The stored Harborkeeper credential could not be removed. OSStatus 7."},
      {"blank name", [](FakeVault& v) { v.resolveStatus = -1; },
       [](CredentialStore& s) { s.store(" \n\u00a0\u3000", "secret"); }, "Choose a FileVault user."},
      {"empty password", [](FakeVault& v) { v.resolveStatus = -1; },
       [](CredentialStore& s) { s.store("alice", ""); }, "Enter the selected user's password."},
      {"nothing stored", [](FakeVault&) {}, load, "No persistent Harborkeeper credential is stored."},
      {"remove with nothing stored", [](FakeVault&) {}, remove, ""},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    auto vault = std::make_shared<FakeVault>();
    test.setUp(*vault);
    CredentialStore store(vault);
    EXPECT_EQ(outcome<CredentialStoreError>([&] { test.action(store); }), test.expected);
  }
}

TEST(CredentialStoreTest, StoringReplacesTheOneItemWithATrimmedAccount) {
  auto vault = std::make_shared<FakeVault>();
  CredentialStore store(vault);
  store.store("alice", "first");
  store.store(" \talice\n", "  second pass  ");
  const std::string remove = "delete " + kService, add = "add " + kService;
  EXPECT_EQ(vault->calls, (std::vector<std::string>{"resolve", remove, add, "resolve", remove, add}));
  const CredentialItem& item = vault->item.value();
  EXPECT_EQ(item.account, "alice");
  EXPECT_EQ(item.label, "Harborkeeper FileVault Credential");
  EXPECT_EQ(item.description, "Credential used by Harborkeeper Helper to arm authenticated restart.");
  EXPECT_EQ(item.accessibility, "afterFirstUnlockThisDeviceOnly");
  const StoredCredential loaded = store.load();
  EXPECT_EQ(loaded.username, "alice");
  EXPECT_EQ(loaded.password, "  second pass  ");
}

TEST(CredentialStoreTest, UnusableStoredItemsAreInvalid) {
  const struct {
    const char* account;
    std::string password;
    bool valid;
  } cases[] = {
      {"alice", "ünïcødé 🙂", true},
      {"alice", "", true},
      {"", "secret", false},
      {"alice", "\xff", false},
      {"alice", "\xed\xa0\x80", false},      // a surrogate
      {"alice", "\xf4\x90\x80\x80", false},  // past U+10FFFF
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(testing::PrintToString(test.password));
    auto vault = std::make_shared<FakeVault>();
    vault->item.emplace();
    vault->item->account = test.account;
    vault->item->passwordData = test.password;
    EXPECT_EQ(outcome<CredentialStoreError>([&] { return CredentialStore(vault).load().password; }),
              test.valid ? test.password : kInvalid);
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

TEST_F(SystemdCredsVaultTest, AwkwardPasswordRoundTripsSealed) {
  store_.store(" root ", kPassword);
  EXPECT_TRUE(modeOf(path_) == 0600u && modeOf(state_) == 0700u);
  const std::string sealed = contentOf(path_);
  EXPECT_TRUE(sealed.find("ünï") == std::string::npos && sealed.find("<plist") == std::string::npos);
  const StoredCredential loaded = store_.load();
  EXPECT_EQ(loaded.username, "root");
  EXPECT_EQ(loaded.password, kPassword);
  EXPECT_TRUE(logger_.lines().empty());
  store_.remove();
  EXPECT_FALSE(fs::exists(path_));
}

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
      {"corrupted", [&] { writeRaw(path_, "SEALED\n@@@\n"); }, unreadable + "-26275.", ""},
      {"other service", [&] { plant(valid("other", toBytes("pw"))); }, unreadable + "-26275.", ""},
      {"missing key", [&] { plant(noAccessibility); }, unreadable + "-26275.", ""},
      // Well sealed but unusable: the store, not the vault, refuses it.
      {"password not UTF-8", [&] { plant(valid(kService, toBytes("\xff"))); }, kInvalid, ""},
      {"widened", [&] { fs::permissions(path_, fs::perms(0644)); }, unreadable + "-36.",
       unremovable + "-36."},
      {"link", [&] { fs::rename(path_, state_ / "real"), fs::create_symlink("real", path_); },
       unreadable + "-36.", unremovable + "-36."},
      {"tool fails", [&] { writeRaw(temp_.path() / "fail", ""); }, unreadable + "-26275.", ""},
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
