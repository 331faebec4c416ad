#include "helper/local_account_password_verifier.h"

#include <string>

#include <gtest/gtest.h>

#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

using namespace testing_support;

// Knows one account; remembers what it was asked.
struct FakeDirectory final : AccountDirectory {
  bool verifyPassword(const std::string& username, std::string_view password) const noexcept override {
    asked = username;
    return username == "alice" && password == " pa ss ";
  }
  mutable std::string asked;
};

TEST(LocalAccountPasswordVerifierTest, AnswersWithTheUserFacingMessage) {
  const struct {
    const char* username;
    const char* password;
    ipc::HelperCommandResult expected;
    const char* asked;  // what the directory was asked for
  } cases[] = {
      {"\u00a0alice\n", " pa ss ", {true, "Password verified."}, "alice"},
      {" \t\u2028", " pa ss ", {false, "Choose a FileVault user."}, ""},
      {"alice", "", {false, "Enter the selected user's password."}, ""},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.username);
    auto directory = std::make_shared<FakeDirectory>();
    EXPECT_EQ(LocalAccountPasswordVerifier(directory).verify(test.username, test.password), test.expected);
    EXPECT_EQ(directory->asked, test.asked);
  }
}

// The service is read from the given directory only; a password never meets
// the system's own stacks, which would reject these made-up ones. A missing
// service, and pam_unix itself, are restart_protection_test's.
TEST(PamAccountDirectoryTest, ChecksAgainstTheServiceInItsOwnDirectory) {
  const TemporaryDirectory temp;
  const PamAccountDirectory directory(temp.path().string(), std::chrono::milliseconds(0));
  const auto service = temp.path() / "harborkeeper-helper";
  const struct {
    const char* name;
    const char* stack;
    std::string password;
    bool accepted;
  } cases[] = {
      {"permit", "auth required pam_permit.so\naccount required pam_permit.so\n", "made up", true},
      {"deny", "auth required pam_deny.so\naccount required pam_permit.so\n", "made up", false},
      {"account denied", "auth required pam_permit.so\naccount required pam_deny.so\n", "made up", false},
      {"password cut by NUL", "auth required pam_permit.so\naccount required pam_permit.so\n",
       std::string("made\0up", 7), false},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    writeRaw(service, test.stack, fs::perms(0644));
    EXPECT_EQ(directory.verifyPassword("root", test.password), test.accepted);
  }
  EXPECT_FALSE(directory.verifyPassword("", "made up"));

  // A stack that rejects at once (pam_deny has no delay) still costs a try the floor.
  writeRaw(service, "auth required pam_deny.so\n", fs::perms(0644));
  const PamAccountDirectory floored(temp.path().string(), std::chrono::milliseconds(300));
  const auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(floored.verifyPassword("root", "made up"));
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(300));
}

}  // namespace
}  // namespace harborkeeper
