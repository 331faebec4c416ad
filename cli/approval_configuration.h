#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "cli/cli_context.h"
#include "core/approval/phone_approval_middleware_client.h"
#include "core/approval/phone_approval_records.h"

// The listener side's settings for the phone approval middleware. The file
// holds the listener's shared secret, so it is its owner's alone and is only
// ever replaced whole.
namespace harborkeeper::cli {

inline constexpr std::int64_t kDefaultApprovalTTLSeconds = 300;

// JSON: "endpointURL", "listenerID", "listenerSecret", "defaultTTLSeconds"
// (positive), "caFile" (absent when empty).
struct ApprovalConfiguration {
  std::string endpointURL;
  std::string listenerID;
  std::string listenerSecret;  // never printed
  std::int64_t defaultTTLSeconds = kDefaultApprovalTTLSeconds;
  std::string caFile;  // PEM bundle trusted besides the system store; empty: none
  bool operator==(const ApprovalConfiguration&) const = default;
};

class ApprovalConfigurationStore final {
 public:
  explicit ApprovalConfigurationStore(std::filesystem::path file) : file_(std::move(file)) {}

  // approval.json beside the recovery profile list: $XDG_CONFIG_HOME/harborkeeper/
  // when that is absolute, else ~/.config/harborkeeper/. Throws CommandError
  // when there is no home directory.
  static std::filesystem::path defaultPath();
  // `file`, or defaultPath() when it is empty (no --approval-config).
  static ApprovalConfigurationStore chosen(const std::string& file);

  [[nodiscard]] const std::filesystem::path& file() const { return file_; }

  // Nothing when the file does not exist. Throws CommandError naming the file
  // (and the key, never a value) when it cannot be read, is not private to
  // its owner, or does not decode.
  [[nodiscard]] std::optional<ApprovalConfiguration> load() const;
  // As load(), but a missing file is a CommandError that says how to register.
  [[nodiscard]] ApprovalConfiguration require() const;
  // Creates the directory (0700) when missing, then replaces the file
  // atomically with mode 0600. Throws CommandError; on failure the old file is
  // intact and no temporary file is left.
  void save(const ApprovalConfiguration& configuration) const;

 private:
  std::filesystem::path file_;
};

// All of `path`, which must be a regular file (not a link) owned by this user
// with no permission for group or others, at most 64 KiB: it holds a secret.
// Throws CommandError naming the file and calling its content `what`.
std::string readPrivateFile(const std::filesystem::path& path, std::string_view what);

// A client for `configuration` over HTTPS, trusting its CA file besides the
// system store.
PhoneApprovalMiddlewareClient makeApprovalClient(const ApprovalConfiguration& configuration);

// What `call` returns; an answer that does not decode becomes a CommandError
// that says it came from the middleware.
template <typename Call>
auto callMiddleware(Call call) {
  try {
    return call();
  } catch (const PhoneApprovalDecodingError& error) {
    throw CommandError(std::string("Phone approval middleware returned a record that could not be read: ") +
                       error.what());
  }
}

}  // namespace harborkeeper::cli
