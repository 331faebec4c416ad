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

}  // namespace
}  // namespace harborkeeper
