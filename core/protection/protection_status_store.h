#pragma once

#include <sys/types.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "core/foundation/bytes.h"
#include "core/platform/secure_state_file.h"
#include "core/protection/helper_constants.h"
#include "core/protection/protection_status.h"

namespace harborkeeper {

class ProtectionStatusStoreError : public std::runtime_error {
 public:
  enum class Kind { encodeFailed, writeFailed };

  static ProtectionStatusStoreError encodeFailed() { return {Kind::encodeFailed, {}}; }
  static ProtectionStatusStoreError writeFailed(std::string detail) {
    return {Kind::writeFailed, std::move(detail)};
  }

  [[nodiscard]] Kind kind() const noexcept { return kind_; }
  // The cause's text for writeFailed; empty for encodeFailed.
  [[nodiscard]] const std::string& detail() const noexcept { return detail_; }

 private:
  ProtectionStatusStoreError(Kind kind, std::string detail);

  Kind kind_;
  std::string detail_;
};

// The helper's record of its last arming attempt, kept as
// <directory>/ProtectionStatus.plist under the private state file rules.
// A plain value: every call re-reads and re-checks the file.
class ProtectionStatusStore final {
 public:
  explicit ProtectionStatusStore(
      std::string directoryPath = std::string(HelperConstants::linuxStateDirectoryPath),
      uid_t expectedOwner = HelperStateFileSecurity::expectedOwnerAccountID);

  // Encoder errors pass unchanged; every failure after encoding, the security
  // checks included, is thrown as ProtectionStatusStoreError::writeFailed.
  void store(const HelperProtectionStatus& status) const;

  // Removes the file after checking it; a missing file is not an error. Throws
  // HelperStateFileSecurityError or FileSystemError unchanged.
  void clear() const;

  // Directory check, then file check; errors unchanged (a missing file is a
  // FileSystemError).
  void validateSecureStatusState() const;

  // The file's raw bytes after the checks, for the app to decode itself;
  // nothing when no file exists. Errors unchanged.
  [[nodiscard]] std::optional<Bytes> loadData() const;

  [[nodiscard]] const std::string& filePath() const noexcept { return file_.filePath(); }

 private:
  SecureStateFile file_;
};

}  // namespace harborkeeper
