#include "core/platform/state_file_security.h"

#include <array>
#include <cerrno>
#include <charconv>

namespace harborkeeper {

namespace {

std::string fileSystemMessage(int errorNumber, std::string_view operation, std::string_view path) {
  std::string message(operation);
  message += ' ';
  message += path;
  message += ": ";
  message += std::generic_category().message(errorNumber);
  message += '.';
  return message;
}

std::string securityMessage(HelperStateFileSecurityError::Kind kind, const std::string& detail) {
  const char* prefix = kind == HelperStateFileSecurityError::Kind::insecureDirectory
                           ? "Harborkeeper helper state directory is not private. "
                           : "Harborkeeper helper state file is not private. ";
  return prefix + detail;
}

StateFileType typeOf(mode_t mode) {
  if (S_ISREG(mode)) return StateFileType::regularFile;
  if (S_ISDIR(mode)) return StateFileType::directory;
  if (S_ISLNK(mode)) return StateFileType::symbolicLink;
  return StateFileType::other;
}

struct Expectation {
  HelperStateFileSecurityError::Kind kind;
  StateFileType type;
  std::uint32_t permissions;
};

constexpr Expectation directoryExpectation{HelperStateFileSecurityError::Kind::insecureDirectory,
                                           StateFileType::directory,
                                           HelperStateFileSecurity::expectedDirectoryPermissions};
constexpr Expectation stateFileExpectation{HelperStateFileSecurityError::Kind::insecureStateFile,
                                           StateFileType::regularFile,
                                           HelperStateFileSecurity::expectedStateFilePermissions};

void check(const StateFileAttributes& attributes, const Expectation& expected, uid_t owner) {
  using namespace HelperStateFileSecurity;
  auto fail = [&](std::string detail) {
    throw HelperStateFileSecurityError(expected.kind, std::move(detail));
  };
  if (attributes.type != expected.type) fail(std::string(fileTypeDetail));
  if (attributes.ownerAccountID != owner) fail(std::string(ownershipDetail));
  if (attributes.posixPermissions != expected.permissions) fail(permissionsDetail(expected.permissions));
}

void checkStatus(const struct stat& status, const Expectation& expected, uid_t owner) {
  if (S_ISLNK(status.st_mode)) {
    throw HelperStateFileSecurityError(expected.kind,
                                       std::string(HelperStateFileSecurity::symbolicLinkDetail));
  }
  check(StateFileAttributes::fromStat(status), expected, owner);
}

void checkPath(const std::string& path, const Expectation& expected, uid_t owner) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) throw FileSystemError(errno, "Could not inspect", path);
  checkStatus(status, expected, owner);
}

}  // namespace

FileSystemError::FileSystemError(int errorNumber, std::string_view operation, std::string_view path)
    : std::system_error(errorNumber, std::generic_category()),
      message_(fileSystemMessage(errorNumber, operation, path)) {}

HelperStateFileSecurityError::HelperStateFileSecurityError(Kind kind, std::string detail)
    : std::runtime_error(securityMessage(kind, detail)), kind_(kind), detail_(std::move(detail)) {}

StateFileAttributes StateFileAttributes::fromStat(const struct stat& status) noexcept {
  return {typeOf(status.st_mode), static_cast<std::uint32_t>(status.st_uid),
          static_cast<std::uint32_t>(status.st_mode & 07777)};
}

namespace HelperStateFileSecurity {

std::string permissionsDetail(std::uint32_t permissions) {
  std::array<char, 12> octal{};  // 32 bits take at most 11 octal digits
  const auto written = std::to_chars(octal.data(), octal.data() + octal.size(), permissions, 8);
  return "Expected permissions " + std::string(octal.data(), written.ptr) + ".";
}

void validateDirectory(const StateFileAttributes& attributes, uid_t expectedOwner) {
  check(attributes, directoryExpectation, expectedOwner);
}

void validateStateFile(const StateFileAttributes& attributes, uid_t expectedOwner) {
  check(attributes, stateFileExpectation, expectedOwner);
}

void validateDirectory(const std::string& path, uid_t expectedOwner) {
  checkPath(path, directoryExpectation, expectedOwner);
}

void validateStateFile(const std::string& path, uid_t expectedOwner) {
  checkPath(path, stateFileExpectation, expectedOwner);
}

void validateDirectoryStatus(const struct stat& status, uid_t expectedOwner) {
  checkStatus(status, directoryExpectation, expectedOwner);
}

void validateStateFileStatus(const struct stat& status, uid_t expectedOwner) {
  checkStatus(status, stateFileExpectation, expectedOwner);
}

}  // namespace HelperStateFileSecurity
}  // namespace harborkeeper
