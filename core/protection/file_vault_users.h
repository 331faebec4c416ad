#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/foundation/bytes.h"
#include "core/foundation/json.h"

namespace harborkeeper {

// One FileVault-enabled user as `fdesetup list` prints it.
struct FileVaultUser {
  std::string displayName;          // the short user name
  std::optional<std::string> uuid;  // absent when the line had none

  // The UUID when present, else the name.
  [[nodiscard]] const std::string& id() const { return uuid ? *uuid : displayName; }
  [[nodiscard]] const std::string& accountName() const { return displayName; }

  bool operator==(const FileVaultUser&) const = default;
};

// The FileVault-enabled users, or why they could not be listed. Shared by the
// daemon, which writes it, and the client, which shows it.
struct FileVaultUserList {
  static constexpr std::string_view helperRequiredReason =
      "An approved helper is required to list FileVault-enabled users.";
  static constexpr std::string_view genericUnavailableReason =
      "Harborkeeper could not list FileVault-enabled users.";

  std::vector<FileVaultUser> users;  // in the order the tool printed them
  std::optional<std::string> unavailableReason;

  // What the client shows while the daemon cannot be reached.
  static FileVaultUserList requiresHelper();

  [[nodiscard]] bool isAvailable() const { return !unavailableReason.has_value(); }
  // "Unknown", "None reported", "1 user", "2 users", ...
  [[nodiscard]] std::string displayName() const;
  // Never the raw reason: that may be any tool's error text.
  [[nodiscard]] std::string_view detail() const;

  // Binary property list: "users" (array of dictionaries with "displayName"
  // and, when present, "uuid") and "unavailableReason" when present. Throws
  // plist::EncodeError for text that is not valid UTF-8.
  [[nodiscard]] Bytes encodeBinaryPlist() const;
  // XML or binary property list. Throws plist::DecodeError.
  static FileVaultUserList decode(std::string_view bytes);
  // The same keys as the property list.
  [[nodiscard]] json::Json toJson() const;

  bool operator==(const FileVaultUserList&) const = default;
};

class SystemStatusService {
 public:
  // Reads one run of `fdesetup list`: a non-zero exit yields the tool's error
  // text (or output, or a generic sentence) as the unavailable reason.
  static FileVaultUserList parseFileVaultUsers(std::string_view output, std::string_view error,
                                               std::int32_t exitCode);
};

}  // namespace harborkeeper
