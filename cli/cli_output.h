#pragma once

#include <string>
#include <string_view>

#include "core/foundation/date_time.h"
#include "core/protection/file_vault_users.h"
#include "core/protection/protection_status.h"

// What the commands print, as pure functions of the records the daemon sends,
// so every line a user sees can be checked without a daemon.
namespace harborkeeper::cli {

// The command's exit status; every path out of a command ends in one of these.
enum class ExitStatus : int {
  success = 0,
  failure = 1,      // the daemon answered failure, or the information is not available
  usage = 2,        // the command line could not be parsed
  unreachable = 3,  // the daemon could not be reached or broke off the conversation
};

// `text` as it may be shown on a terminal: repaired UTF-8 with every control
// character (C0, DEL, C1) replaced by "?". For text from the network or a
// pasted link, which could otherwise drive the terminal.
std::string printable(std::string_view text);

// One command's result: text for standard output, a message for standard error
// (without the program's prefix; empty for none) and the exit status.
struct Report {
  std::string output;
  std::string message;
  ExitStatus status = ExitStatus::success;
  bool operator==(const Report&) const = default;
};

// `users`: one line per user, "<displayName> <uuid>" or "<displayName>". An
// empty list is a notice, not a failure; an unavailable one fails with its
// detail(). With `json`, the record with its coding keys, even when unavailable.
Report usersReport(const FileVaultUserList& list, bool json);

// `status`: the headline of the state for the current boot, the record's
// message and when the attempt was made in which mode. Always succeeds: a
// failed attempt is still information. With `json`, an object with the
// record's keys plus "protectionState" (the headline).
Report statusReport(const HelperProtectionStatus& status, Date currentBootDate, bool json);

}  // namespace harborkeeper::cli
