#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

namespace harborkeeper {

// A failed system call on a state file: what() names the operation, the path
// and the system's reason, e.g. "Could not write /var/lib/harborkeeper/x: No
// space left on device." It never carries file contents.
class FileSystemError : public std::system_error {
 public:
  // `operation` is the sentence start, e.g. "Could not open".
  FileSystemError(int errorNumber, std::string_view operation, std::string_view path);

  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

// A state directory or file that is not private. what() is the user-facing text.
class HelperStateFileSecurityError : public std::runtime_error {
 public:
  enum class Kind { insecureDirectory, insecureStateFile };

  HelperStateFileSecurityError(Kind kind, std::string detail);

  static HelperStateFileSecurityError insecureDirectory(std::string detail) {
    return {Kind::insecureDirectory, std::move(detail)};
  }
  static HelperStateFileSecurityError insecureStateFile(std::string detail) {
    return {Kind::insecureStateFile, std::move(detail)};
  }

  [[nodiscard]] Kind kind() const noexcept { return kind_; }
  [[nodiscard]] const std::string& detail() const noexcept { return detail_; }

  bool operator==(const HelperStateFileSecurityError& other) const noexcept {
    return kind_ == other.kind_ && detail_ == other.detail_;
  }

 private:
  Kind kind_;
  std::string detail_;
};

enum class StateFileType { regularFile, directory, symbolicLink, other };

// The facts the checks look at. A fact that could not be fetched is absent and
// fails its check, as a missing entry of an attribute map would.
struct StateFileAttributes {
  std::optional<StateFileType> type;
  std::optional<std::uint32_t> ownerAccountID;
  // The twelve permission bits, set-id and sticky bits included.
  std::optional<std::uint32_t> posixPermissions;

  static StateFileAttributes fromStat(const struct stat& status) noexcept;
};

// The rules every helper state directory and file must meet. Checks run in a
// fixed order (link, type, owner, exact permissions) and stop at the first
// failure. `expectedOwner` exists so tests can run without root; the owner
// failure still reads "Expected root ownership.".
namespace HelperStateFileSecurity {

inline constexpr uid_t expectedOwnerAccountID = 0;
inline constexpr std::uint32_t expectedDirectoryPermissions = 0700;
inline constexpr std::uint32_t expectedStateFilePermissions = 0600;

inline constexpr std::string_view symbolicLinkDetail = "Symbolic links are not allowed.";
inline constexpr std::string_view fileTypeDetail = "Unexpected file type.";
inline constexpr std::string_view ownershipDetail = "Expected root ownership.";
// "Expected permissions 700." for 0700.
std::string permissionsDetail(std::uint32_t permissions);

// Attribute checks only (type, owner, permissions). Throw HelperStateFileSecurityError.
void validateDirectory(const StateFileAttributes& attributes, uid_t expectedOwner = expectedOwnerAccountID);
void validateStateFile(const StateFileAttributes& attributes, uid_t expectedOwner = expectedOwnerAccountID);

// Path checks: lstat (links are never followed), then the attribute check.
// Throw HelperStateFileSecurityError, or FileSystemError when lstat fails
// (a missing item included).
void validateDirectory(const std::string& path, uid_t expectedOwner = expectedOwnerAccountID);
void validateStateFile(const std::string& path, uid_t expectedOwner = expectedOwnerAccountID);

// The same checks on a stat result that may describe a link: a link fails with
// the link detail before anything else.
void validateDirectoryStatus(const struct stat& status, uid_t expectedOwner);
void validateStateFileStatus(const struct stat& status, uid_t expectedOwner);

}  // namespace HelperStateFileSecurity
}  // namespace harborkeeper
