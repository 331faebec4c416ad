#include "core/protection/file_vault_users.h"

#include <string>
#include <tuple>

#include <gtest/gtest.h>

namespace harborkeeper {
namespace {

FileVaultUser user(std::string name, std::optional<std::string> uuid = std::nullopt) {
  return FileVaultUser{std::move(name), std::move(uuid)};
}
FileVaultUserList unavailable(std::string reason) { return FileVaultUserList{{}, std::move(reason)}; }

TEST(ParseFileVaultUsersTest, Table) {
  // name, output, error, exit code, expected
  const std::tuple<const char*, std::string, std::string, std::int32_t, FileVaultUserList> cases[] = {
      {"two users", "alice , U-1\nbob,U-2\n", "ignored", 0, {{user("alice", "U-1"), user("bob", "U-2")}, {}}},
      {"CRLF, CR", "alice\r\n\r\nbob\rcarol", "", 0, {{user("alice"), user("bob"), user("carol")}, {}}},
      {"no comma, empty uuid", "alice\nbob, \t", "", 0, {{user("alice"), user("bob")}, {}}},
      {"empty name skipped", " , 1234\nbob,5678", "", 0, {{user("bob", "5678")}, {}}},
      {"first comma only", "alice,uuid,extra", "", 0, {{user("alice", "uuid,extra")}, {}}},
      {"exit 1, nothing", "", " \n", 1, unavailable("fdesetup list failed with exit code 1.")},
      {"error preferred", "alice,1", "  Error: not root\n", 1, unavailable("Error: not root")},
      {"output when no error", " partial output \n", "", 2, unavailable("partial output")},
  };
  for (const auto& [name, output, error, exitCode, expected] : cases) {
    EXPECT_EQ(SystemStatusService::parseFileVaultUsers(output, error, exitCode), expected) << name;
  }
}

TEST(FileVaultUserListTest, Texts) {
  const std::tuple<FileVaultUserList, std::string_view, std::string_view> cases[] = {
      {FileVaultUserList::requiresHelper(), "Unknown", FileVaultUserList::helperRequiredReason},
      // Never the tool's own text.
      {unavailable("fdesetup list failed with exit code 1."), "Unknown",
       "Harborkeeper could not list FileVault-enabled users."},
      {{}, "None reported", "The helper did not report any FileVault-enabled users."},
      {{{user("alice")}, {}}, "1 user", "Harborkeeper can offer detected users during setup."},
      {{{user("alice"), user("bob")}, {}}, "2 users", "Harborkeeper can offer detected users during setup."},
  };
  for (const auto& [list, displayName, detail] : cases) {
    SCOPED_TRACE(testing::Message() << displayName << ": " << detail);
    EXPECT_EQ(list.isAvailable(), displayName != "Unknown");
    EXPECT_EQ(list.displayName(), displayName);
    EXPECT_EQ(list.detail(), detail);
  }
}

TEST(FileVaultUserListTest, Coding) {
  const FileVaultUserList list{{user("alice", "U/1"), user("bob")}, "why"};
  const std::string binary = toString(list.encodeBinaryPlist());
  EXPECT_EQ(binary.substr(0, 8), "bplist00");
  EXPECT_EQ(FileVaultUserList::decode(binary), list);
  EXPECT_EQ(
      json::serialize(list.toJson()),
      R"({"unavailableReason":"why","users":[{"displayName":"alice","uuid":"U/1"},{"displayName":"bob"}]})");
  EXPECT_EQ(FileVaultUserList::decode(
                "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>users</key><array><dict>"
                "<key>displayName</key><string>alice</string><key>uuid</key><string>U/1</string></dict>"
                "</array><key>unavailableReason</key><string>r</string></dict></plist>"),
            (FileVaultUserList{{user("alice", "U/1")}, "r"}));
}

}  // namespace
}  // namespace harborkeeper
