#include "cli/cli_output.h"

#include "core/foundation/json.h"

namespace harborkeeper::cli {

namespace {

constexpr std::string_view kNoUsersNotice = "No FileVault-enabled users are reported.";

std::string prettyJson(const json::Json& value) { return json::serializePretty(value) + '\n'; }

std::string userLines(const FileVaultUserList& list) {
  std::string lines;
  for (const FileVaultUser& user : list.users) {
    lines += user.displayName;
    if (user.uuid) lines += ' ' + *user.uuid;
    lines += '\n';
  }
  return lines;
}

std::string_view modeDescription(HelperProtectionMode mode) {
  return mode == HelperProtectionMode::persistent ? "persistent" : "next restart";
}

json::Json statusJson(const HelperProtectionStatus& status, std::string_view headline) {
  return {{"mode", rawValue(status.mode)},
          {"succeeded", status.succeeded},
          {"armedAt", date_time::formatInternetDateTime(status.armedAt)},
          {"message", status.message},
          {"protectionState", headline}};
}

}  // namespace

Report usersReport(const FileVaultUserList& list, bool json) {
  Report report;
  report.output = json ? prettyJson(list.toJson()) : userLines(list);
  if (!list.isAvailable()) {
    report.message = list.detail();
    report.status = ExitStatus::failure;
  } else if (list.users.empty() && !json) {
    report.message = kNoUsersNotice;
  }
  return report;
}

Report statusReport(const HelperProtectionStatus& status, Date currentBootDate, bool json) {
  const ProtectionState state = status.protectionState(currentBootDate);
  if (json) return {prettyJson(statusJson(status, state.headline())), {}, ExitStatus::success};
  std::string lines(state.headline());
  lines += '\n' + status.message + '\n';
  lines += "Attempted at " + date_time::formatInternetDateTime(status.armedAt) + " (";
  lines += modeDescription(status.mode);
  lines += ")\n";
  return {std::move(lines), {}, ExitStatus::success};
}

}  // namespace harborkeeper::cli
