#include "cli/cli_output.h"

#include <gtest/gtest.h>

#include "core/foundation/json.h"

namespace harborkeeper::cli {
namespace {

using namespace std::chrono;

// Text and JSON of every kind of list; JSON keeps its coding keys even when
// unavailable. A plain list is helper_daemon_test's, through the real daemon.
TEST(UsersReportTest, TextAndJson) {
  const std::string generic = "Harborkeeper could not list FileVault-enabled users.";
  const std::string helperRequired(FileVaultUserList::helperRequiredReason);
  const json::Json none = json::Json::array();
  const std::tuple<FileVaultUserList, Report, json::Json> cases[] = {
      {{}, {"", "No FileVault-enabled users are reported.", ExitStatus::success}, {{"users", none}}},
      // A name is the tool's text: a terminal escape in it is shown, not obeyed.
      {{{{"\x1b[2Jmallory", std::nullopt}}, std::nullopt},
       {"?[2Jmallory\n", "", ExitStatus::success},
       {{"users", {{{"displayName", "\x1b[2Jmallory"}}}}}},
      // The raw reason is a tool's own text: shown in JSON, never as the message.
      {{{}, "fdesetup: internal error 42"},
       {"", generic, ExitStatus::failure},
       {{"users", none}, {"unavailableReason", "fdesetup: internal error 42"}}},
      {FileVaultUserList::requiresHelper(),
       {"", helperRequired, ExitStatus::failure},
       {{"users", none}, {"unavailableReason", helperRequired}}},
  };
  for (const auto& [list, expected, expectedJson] : cases) {
    SCOPED_TRACE(list.displayName());
    EXPECT_EQ(usersReport(list, false), expected);
    const Report asJson = usersReport(list, true);
    EXPECT_EQ(json::parse(asJson.output), expectedJson);
    EXPECT_TRUE(asJson.output.ends_with("}\n"));
    EXPECT_EQ(asJson.message, expected.status == ExitStatus::success ? "" : expected.message);  // no notice
    EXPECT_EQ(asJson.status, expected.status);
  }
}

TEST(StatusReportTest, HeadlineForTheCurrentBootThenMessageAndAttempt) {
  using enum HelperProtectionMode;
  const Date boot = Date(sys_days(2026y / 11 / 15) + 8h);
  // {record, headline, when and in which mode it was attempted}
  const std::tuple<HelperProtectionStatus, std::string, std::string> cases[] = {
      {{nextRestart, true, boot + 1h, "m"}, "Protected for the next restart", "09:00:00Z (next restart)"},
      {{persistent, true, boot + 1h + 500ms, "m"}, "Protected for future restarts", "09:00:00Z (persistent)"},
      {{persistent, false, boot + 1h, "m"}, "Needs password update", "09:00:00Z (persistent)"},
      {{nextRestart, false, boot - 1h, "m"}, "Protection failed", "07:00:00Z (next restart)"},
      // Armed before this boot, or at its very moment: the restart it was for has happened.
      {{nextRestart, true, boot - 1s, "m"}, "Protection expired", "07:59:59Z (next restart)"},
      {{persistent, true, boot, "m"}, "Protection expired", "08:00:00Z (persistent)"},
  };
  for (const auto& [status, headline, attempt] : cases) {
    SCOPED_TRACE(headline);
    const std::string lines = std::string(headline).append("\nm\nAttempted at 2026-11-15T").append(attempt);
    EXPECT_EQ(statusReport(status, boot, false), (Report{lines + '\n', "", ExitStatus::success}));
  }
  const Report asJson = statusReport({persistent, false, boot + 2h, "Wrong password."}, boot, true);
  EXPECT_EQ(json::parse(asJson.output), json::parse(R"({"mode": "persistent", "succeeded": false,
      "armedAt": "2026-11-15T10:00:00Z", "message": "Wrong password.", "protectionState": "Needs password update"})"));
  EXPECT_EQ(asJson.status, ExitStatus::success);
}

}  // namespace
}  // namespace harborkeeper::cli
