#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "core/foundation/bytes.h"
#include "core/foundation/date_time.h"

namespace harborkeeper {

enum class HelperProtectionMode { nextRestart, persistent };

std::string_view rawValue(HelperProtectionMode mode);
std::optional<HelperProtectionMode> helperProtectionModeFromRaw(std::string_view raw);

// What a protection state means for the current boot, in the app's order.
class ProtectionState {
 public:
  enum class Kind {
    needsPasswordUpdate,
    failed,
    protectedForFutureRestarts,
    protectedForNextRestart,
    needsSetup,
    fileVaultOff,
    unsupported,
    expired,
    unknown,
  };

  static ProtectionState needsPasswordUpdate(std::string message) {
    return {Kind::needsPasswordUpdate, std::move(message)};
  }
  static ProtectionState failed(std::string message) { return {Kind::failed, std::move(message)}; }
  static ProtectionState of(Kind kind) { return {kind, {}}; }

  [[nodiscard]] Kind kind() const { return kind_; }
  // The message of needsPasswordUpdate and failed; empty for the other cases.
  [[nodiscard]] const std::string& message() const { return message_; }
  [[nodiscard]] std::string_view headline() const;

  bool operator==(const ProtectionState&) const = default;

 private:
  ProtectionState(Kind kind, std::string message) : kind_(kind), message_(std::move(message)) {}
  Kind kind_;
  std::string message_;
};

// The helper's proof of its last arming attempt.
struct HelperProtectionStatus {
  HelperProtectionMode mode = HelperProtectionMode::nextRestart;
  bool succeeded = false;
  Date armedAt;
  std::string message;

  bool operator==(const HelperProtectionStatus&) const = default;

  // Strict comparison: armed exactly at the boot date counts as before it.
  [[nodiscard]] ProtectionState protectionState(Date currentBootDate) const;

  // XML property list with the keys "mode", "succeeded", "armedAt", "message";
  // the date in whole seconds. Throws plist::EncodeError for a message that is
  // not valid UTF-8.
  [[nodiscard]] Bytes encodeXml() const;
  // Reads XML or binary. Throws plist::DecodeError for bytes that are not a
  // property list or miss a key, hold a wrong type or an unknown mode.
  static HelperProtectionStatus decode(std::string_view bytes);
};

}  // namespace harborkeeper
