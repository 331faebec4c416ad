#include "helper/secure_path.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <vector>

namespace harborkeeper {

namespace {

using Kind = SecurePathError::Kind;

[[noreturn]] void fail(Kind kind, const std::string& message) { throw SecurePathError(kind, message); }

// Root may change anything anyway, so a root-owned directory is as safe as one
// of `expectedOwner`; this also lets tests run unprivileged under "/".
bool trustedOwner(uid_t owner, uid_t expectedOwner, bool directory) {
  return owner == expectedOwner || (directory && owner == 0);
}

std::string ownerName(uid_t expectedOwner, bool directory) {
  if (expectedOwner == 0) return "root";
  const std::string uid = "uid " + std::to_string(expectedOwner);
  return directory ? "root or " + uid : uid;
}

void checkOwnerAndMode(const std::string& path, const struct stat& status, uid_t expectedOwner,
                       bool directory) {
  if (!trustedOwner(status.st_uid, expectedOwner, directory)) {
    fail(Kind::insecure, path + " is not owned by " + ownerName(expectedOwner, directory) + ".");
  }
  // In a sticky directory others can rename or remove only their own entries.
  const bool sticky = directory && (status.st_mode & S_ISVTX) != 0;
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !sticky) {
    fail(Kind::insecure, path + " is writable by group or others.");
  }
}

void checkDirectory(const std::string& path, const struct stat& status, uid_t expectedOwner) {
  if (S_ISLNK(status.st_mode)) fail(Kind::link, path + " is a symbolic link.");
  if (!S_ISDIR(status.st_mode)) fail(Kind::insecure, path + " is not a directory.");
  checkOwnerAndMode(path, status, expectedOwner, true);
}

void checkFile(const std::string& path, const struct stat& status, uid_t expectedOwner) {
  if (S_ISLNK(status.st_mode)) fail(Kind::link, path + " is a symbolic link.");
  if (!S_ISREG(status.st_mode)) fail(Kind::insecure, path + " is not a regular file.");
  checkOwnerAndMode(path, status, expectedOwner, false);
}

[[noreturn]] void failOpen(int errorNumber, const std::string& path) {
  if (errorNumber == ENOENT) fail(Kind::missing, path + " does not exist.");
  fail(Kind::unreadable,
       "Could not open " + path + ": " + std::generic_category().message(errorNumber) + ".");
}

struct stat statusOf(int fd, const std::string& path) {
  struct stat status {};
  if (::fstat(fd, &status) != 0) {
    fail(Kind::unreadable, "Could not inspect " + path + ": " + std::generic_category().message(errno) + ".");
  }
  return status;
}

// The components of an absolute path without "." or ".."; repeated slashes are one.
std::vector<std::string> componentsOf(const std::string& path) {
  if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos) {
    fail(Kind::notAbsolute, path + " is not an absolute path.");
  }
  std::vector<std::string> components;
  for (std::size_t start = 1; start <= path.size();) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    std::string component = path.substr(start, end - start);
    if (component == "." || component == "..") {
      fail(Kind::notAbsolute, path + R"( contains a "." or ".." component.)");
    }
    if (!component.empty()) components.push_back(std::move(component));
    start = end + 1;
  }
  return components;
}

UniqueFd openPath(int directory, const std::string& name, const std::string& path) {
  UniqueFd fd(::openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) failOpen(errno, path);
  return fd;
}

// The O_PATH descriptor was checked; the readable one must be the same file,
// or something was swapped in between (only a trusted owner could have).
// O_NONBLOCK keeps a swapped-in FIFO from hanging the open.
UniqueFd reopenForReading(int directory, const std::string& name, const std::string& path,
                          const struct stat& checked) {
  UniqueFd fd(::openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!fd) failOpen(errno, path);
  const struct stat status = statusOf(fd.get(), path);
  if (status.st_dev != checked.st_dev || status.st_ino != checked.st_ino) {
    fail(Kind::insecure, path + " was replaced while it was opened.");
  }
  return fd;
}

}  // namespace

UniqueFd openSecurely(const std::string& path, uid_t expectedOwner, struct stat* status) {
  const std::vector<std::string> components = componentsOf(path);
  UniqueFd directory(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory) failOpen(errno, "/");
  checkDirectory("/", statusOf(directory.get(), "/"), expectedOwner);
  if (components.empty()) fail(Kind::insecure, "/ is not a regular file.");

  std::string walked;
  for (std::size_t i = 0; i + 1 < components.size(); ++i) {
    walked += "/" + components[i];
    UniqueFd next = openPath(directory.get(), components[i], walked);
    checkDirectory(walked, statusOf(next.get(), walked), expectedOwner);
    directory = std::move(next);
  }
  const std::string& name = components.back();
  walked += "/" + name;
  const UniqueFd file = openPath(directory.get(), name, walked);
  const struct stat checked = statusOf(file.get(), walked);
  checkFile(walked, checked, expectedOwner);
  UniqueFd readable = reopenForReading(directory.get(), name, walked, checked);
  // Recheck what is handed out, in case its mode changed since the first look.
  const struct stat opened = statusOf(readable.get(), walked);
  checkFile(walked, opened, expectedOwner);
  if (status != nullptr) *status = opened;
  return readable;
}

}  // namespace harborkeeper
