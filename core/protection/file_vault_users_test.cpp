#include "core/protection/file_vault_users.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/foundation/plist.h"

namespace harborkeeper {
namespace {

constexpr std::string_view kGeneric = "Harborkeeper could not list FileVault-enabled users.";
constexpr std::string_view kHelperRequired =
    "An approved helper is required to list FileVault-enabled users.";

FileVaultUser user(std::string name, std::optional<std::string> uuid = std::nullopt) {
  return FileVaultUser{std::move(name), std::move(uuid)};
}

FileVaultUserList unavailable(std::string reason) { return FileVaultUserList{{}, std::move(reason)}; }

std::string asText(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

TEST(ParseFileVaultUsersTest, Table) {
  const std::string uuidA = "3F2504E0-4F89-11D3-9A0C-0305E82C3301";
  const std::string uuidB = "9B1DEB4D-3B7D-4BAD-9BDD-2B0D7B3DCB6D";
  const struct {
    std::string name;
    std::string output;
    std::string error;
    std::int32_t exitCode;
    FileVaultUserList expected;
  } cases[] = {
      {"two users",
       "alice," + uuidA + "\nbob," + uuidB + "\n",
       "",
       0,
       {{user("alice", uuidA), user("bob", uuidB)}, {}}},
      {"CRLF, CR and blank lines",
       "\r\n alice , " + uuidA + " \r\n\r\n\rbob\r",
       "",
       0,
       {{user("alice", uuidA), user("bob")}, {}}},
      {"no comma", "alice", "", 0, {{user("alice")}, {}}},
      {"empty uuid", "alice, \t", "", 0, {{user("alice")}, {}}},
      {"empty name skipped", " , 1234\nbob,5678", "", 0, {{user("bob", "5678")}, {}}},
      {"split at first comma only", "alice,uuid,extra", "", 0, {{user("alice", "uuid,extra")}, {}}},
      {"unicode white space trimmed",
       "\u00A0alice\u2003,\u3000" + uuidA,
       "",
       0,
       {{user("alice", uuidA)}, {}}},
      {"nothing listed", "  \n\n", "ignored", 0, {}},
      {"exit 1 with nothing", "", " \n", 1, unavailable("fdesetup list failed with exit code 1.")},
      {"negative exit code", "", "", -9, unavailable("fdesetup list failed with exit code -9.")},
      {"error preferred", "alice,1", "  Error: not root\n", 1, unavailable("Error: not root")},
      {"output when no error", " partial output \n", "", 2, unavailable("partial output")},
      {"runner timeout passes through", "", "/usr/bin/fdesetup timed out after 30 seconds.", -2,
       unavailable("/usr/bin/fdesetup timed out after 30 seconds.")},
  };
  for (const auto& testCase : cases) {
    EXPECT_EQ(SystemStatusService::parseFileVaultUsers(testCase.output, testCase.error, testCase.exitCode),
              testCase.expected)
        << testCase.name;
  }
}

TEST(FileVaultUserTest, IdIsUuidWhenPresent) {
  EXPECT_EQ(user("alice").id(), "alice");
  EXPECT_EQ(user("alice", "UUID-1").id(), "UUID-1");
  EXPECT_EQ(user("alice", "UUID-1").accountName(), "alice");
}

TEST(FileVaultUserListTest, Texts) {
  const struct {
    FileVaultUserList list;
    bool available;
    std::string_view displayName;
    std::string_view detail;
  } cases[] = {
      {FileVaultUserList::requiresHelper(), false, "Unknown", kHelperRequired},
      {unavailable("fdesetup list failed with exit code 1."), false, "Unknown", kGeneric},
      {unavailable("secret tool text"), false, "Unknown", kGeneric},
      {{}, true, "None reported", "The helper did not report any FileVault-enabled users."},
      {{{user("alice")}, {}}, true, "1 user", "Harborkeeper can offer detected users during setup."},
      {{{user("alice"), user("bob")}, {}},
       true,
       "2 users",
       "Harborkeeper can offer detected users during setup."},
      {{std::vector<FileVaultUser>(12, user("x")), {}},
       true,
       "12 users",
       "Harborkeeper can offer detected users during setup."},
  };
  for (const auto& testCase : cases) {
    SCOPED_TRACE(testCase.displayName);
    EXPECT_EQ(testCase.list.isAvailable(), testCase.available);
    EXPECT_EQ(testCase.list.displayName(), testCase.displayName);
    EXPECT_EQ(testCase.list.detail(), testCase.detail);
  }
  EXPECT_TRUE(FileVaultUserList::requiresHelper().users.empty());
}

TEST(FileVaultUserListTest, BinaryReplyHoldsOnlyPresentKeys) {
  const FileVaultUserList list{{user("alice", "UUID-1"), user("bob")}, {}};
  const Bytes bytes = list.encodeBinaryPlist();
  ASSERT_GE(bytes.size(), 8U);
  EXPECT_EQ(asText(Bytes(bytes.begin(), bytes.begin() + 8)), "bplist00");
  const plist::Value expected = plist::Dictionary{
      {"users", plist::Array{plist::Dictionary{{"displayName", "alice"}, {"uuid", "UUID-1"}},
                             plist::Dictionary{{"displayName", "bob"}}}}};
  EXPECT_EQ(plist::decode(bytes), expected);
  EXPECT_EQ(FileVaultUserList::decode(asText(bytes)), list);

  const FileVaultUserList failed = unavailable("Error: not root");
  EXPECT_EQ(
      plist::decode(failed.encodeBinaryPlist()),
      plist::Value(plist::Dictionary{{"users", plist::Array{}}, {"unavailableReason", "Error: not root"}}));
  EXPECT_EQ(FileVaultUserList::decode(asText(failed.encodeBinaryPlist())), failed);
}

TEST(FileVaultUserListTest, DecodesXmlAndReportsBadShapes) {
  const std::string xml =
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>users</key><array>"
      "<dict><key>displayName</key><string>alice</string><key>uuid</key><string>U</string></dict>"
      "</array></dict></plist>";
  EXPECT_EQ(FileVaultUserList::decode(xml), (FileVaultUserList{{user("alice", "U")}, {}}));

  const std::vector<std::pair<plist::Value, std::string_view>> cases = {
      {plist::Dictionary{}, "The data couldn’t be read because it is missing."},
      {plist::Dictionary{{"users", plist::Array{plist::Dictionary{{"uuid", "U"}}}}},
       "The data couldn’t be read because it is missing."},
      {plist::Dictionary{{"users", "alice"}},
       "The data couldn’t be read because it isn’t in the correct format."},
      {plist::Dictionary{{"users", plist::Array{}}, {"unavailableReason", 1}},
       "The data couldn’t be read because it isn’t in the correct format."},
      {plist::Array{}, "The data couldn’t be read because it isn’t in the correct format."},
  };
  for (const auto& [value, text] : cases) {
    const std::string bytes = asText(plist::encode(value, plist::Format::binary));
    EXPECT_THAT([&] { FileVaultUserList::decode(bytes); },
                testing::ThrowsMessage<plist::DecodeError>(testing::StrEq(std::string(text))));
  }
}

TEST(FileVaultUserListTest, Json) {
  EXPECT_EQ(json::serialize(FileVaultUserList{{user("alice", "U/1"), user("bob")}, {}}.toJson()),
            R"({"users":[{"displayName":"alice","uuid":"U/1"},{"displayName":"bob"}]})");
  EXPECT_EQ(
      json::serialize(FileVaultUserList::requiresHelper().toJson()),
      R"({"unavailableReason":"An approved helper is required to list FileVault-enabled users.","users":[]})");
}

}  // namespace
}  // namespace harborkeeper
