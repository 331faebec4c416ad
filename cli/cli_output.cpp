#include "cli/cli_output.h"

#include "core/foundation/json.h"
#include "core/foundation/text.h"

namespace harborkeeper::cli {

namespace {

constexpr std::string_view kNoUsersNotice = "No FileVault-enabled users are reported.";

std::string prettyJson(const json::Json& value) { return json::serializePretty(value) + '\n'; }

std::string userLines(const FileVaultUserList& list) {
  std::string lines;
  for (const FileVaultUser& user : list.users) {
    lines += printable(user.displayName);
    if (user.uuid) lines += ' ' + printable(*user.uuid);
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
    report.message = printable(list.detail());
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
  lines += '\n' + printable(status.message) + '\n';
  lines += "Attempted at " + date_time::formatInternetDateTime(status.armedAt) + " (";
  lines += modeDescription(status.mode);
  lines += ")\n";
  return {std::move(lines), {}, ExitStatus::success};
}

std::string printable(std::string_view text) {
  const std::string repaired = text::repairedUtf8(text);
  std::string shown;
  for (std::size_t i = 0; i < repaired.size(); ++i) {
    const auto byte = static_cast<unsigned char>(repaired[i]);
    const bool c1 =
        byte == 0xC2 && i + 1 < repaired.size() && static_cast<unsigned char>(repaired[i + 1]) < 0xA0;
    if (c1) ++i;  // U+0080 to U+009F
    shown.push_back(byte < 0x20 || byte == 0x7F || c1 ? '?' : repaired[i]);
  }
  return shown;
}

}  // namespace harborkeeper::cli
