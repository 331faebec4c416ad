#include "cli/cli_output.h"

#include <gtest/gtest.h>

#include "core/foundation/json.h"

namespace harborkeeper::cli {
namespace {

using namespace std::chrono;
using Mode = HelperProtectionMode;

const Date kBoot = Date(sys_days(2026y / 11 / 15) + 8h);
const FileVaultUserList kTwoUsers{{{"alice", "A1B2-C3"}, {"bob", std::nullopt}}, std::nullopt};
// The raw reason is a tool's own text and must never be shown.
const FileVaultUserList kUnavailable{{}, "fdesetup: internal error 42"};
constexpr std::string_view kGenericDetail = "Harborkeeper could not list FileVault-enabled users.";

TEST(UsersReportTest, Lines) {
  const std::pair<FileVaultUserList, Report> cases[] = {
      {kTwoUsers, {"alice A1B2-C3\nbob\n", "", ExitStatus::success}},
      {{}, {"", "No FileVault-enabled users are reported.", ExitStatus::success}},
      {kUnavailable, {"", std::string(kGenericDetail), ExitStatus::failure}},
      {FileVaultUserList::requiresHelper(),
       {"", std::string(FileVaultUserList::helperRequiredReason), ExitStatus::failure}},
  };
  for (const auto& [list, expected] : cases) {
    SCOPED_TRACE(list.displayName());
    EXPECT_EQ(usersReport(list, false), expected);
  }
}

TEST(UsersReportTest, JsonKeepsTheCodingKeysEvenWhenUnavailable) {
  const std::tuple<FileVaultUserList, json::Json, Report> cases[] = {
      {kTwoUsers,
       {{"users", {{{"displayName", "alice"}, {"uuid", "A1B2-C3"}}, {{"displayName", "bob"}}}}},
       {{}, "", ExitStatus::success}},
      {{}, {{"users", json::Json::array()}}, {{}, "", ExitStatus::success}},
      {kUnavailable,
       {{"users", json::Json::array()}, {"unavailableReason", "fdesetup: internal error 42"}},
       {{}, std::string(kGenericDetail), ExitStatus::failure}},
  };
  for (const auto& [list, expectedJson, expected] : cases) {
    SCOPED_TRACE(list.displayName());
    const Report report = usersReport(list, true);
    EXPECT_EQ(json::parse(report.output), expectedJson);
    EXPECT_EQ(report.output.back(), '\n');
    EXPECT_EQ(report.message, expected.message);
    EXPECT_EQ(report.status, expected.status);
  }
}

TEST(StatusReportTest, Lines) {
  const std::pair<HelperProtectionStatus, std::string> cases[] = {
      {{Mode::nextRestart, true, kBoot + 1h, "Armed."},
       "Protected for the next restart\nArmed.\nAttempted at 2026-11-15T09:00:00Z (next restart)\n"},
      {{Mode::persistent, true, kBoot + 1h + 500ms, "Armed."},
       "Protected for future restarts\nArmed.\nAttempted at 2026-11-15T09:00:00Z (persistent)\n"},
      {{Mode::persistent, false, kBoot + 1h, "Wrong password."},
       "Needs password update\nWrong password.\nAttempted at 2026-11-15T09:00:00Z (persistent)\n"},
      {{Mode::nextRestart, false, kBoot - 1h, "fdesetup failed."},
       "Protection failed\nfdesetup failed.\nAttempted at 2026-11-15T07:00:00Z (next restart)\n"},
      // Armed before this boot: the restart it was for has happened.
      {{Mode::nextRestart, true, kBoot - 1s, "Armed."},
       "Protection expired\nArmed.\nAttempted at 2026-11-15T07:59:59Z (next restart)\n"},
  };
  for (const auto& [status, lines] : cases) {
    SCOPED_TRACE(lines);
    EXPECT_EQ(statusReport(status, kBoot, false), (Report{lines, "", ExitStatus::success}));
  }
}

TEST(StatusReportTest, Json) {
  const Report report = statusReport({Mode::persistent, false, kBoot + 2h, "Wrong password."}, kBoot, true);
  const json::Json expected = {{"mode", "persistent"},
                               {"succeeded", false},
                               {"armedAt", "2026-11-15T10:00:00Z"},
                               {"message", "Wrong password."},
                               {"protectionState", "Needs password update"}};
  EXPECT_EQ(json::parse(report.output), expected);
  EXPECT_EQ(report.status, ExitStatus::success);
}

}  // namespace
}  // namespace harborkeeper::cli
