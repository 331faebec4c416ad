#include "core/platform/secure_state_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <vector>

#include "core/platform/internal/retry.h"
#include "core/platform/unique_fd.h"

namespace harborkeeper {

namespace {

namespace Security = HelperStateFileSecurity;
using OpenHook = SecureStateFile::OpenHook;

struct stat statusOf(int fd, const std::string& path) {
  struct stat status {};
  if (::fstat(fd, &status) != 0) throw FileSystemError(errno, "Could not inspect", path);
  return status;
}

// Type and owner only: a directory of ours with the wrong mode may be repaired.
void validateRepairableDirectory(const struct stat& status, uid_t owner) {
  if (S_ISLNK(status.st_mode)) Security::validateDirectoryStatus(status, owner);
  StateFileAttributes attributes = StateFileAttributes::fromStat(status);
  attributes.posixPermissions = Security::expectedDirectoryPermissions;
  Security::validateDirectory(attributes, owner);
}

// Missing parents get the ordinary mode (umask applies): only the state
// directory itself is private.
void makeDirectories(const std::string& path) {
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string prefix = path.substr(0, end);
    const mode_t mode = end == std::string::npos ? 0700 : 0777;
    if (!prefix.empty() && ::mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) {
      throw FileSystemError(errno, "Could not create directory", prefix);
    }
    if (end == std::string::npos) return;
  }
}

// O_NOFOLLOW makes a link (swapped in after the path check) fail the open
// instead of being followed; the path check then names the reason.
UniqueFd openDirectory(const std::string& path, uid_t owner, const OpenHook& beforeOpen) {
  if (beforeOpen) beforeOpen(path);
  const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd >= 0) return UniqueFd(fd);
  const int error = errno;
  if (error == ENOTDIR || error == ELOOP) Security::validateDirectory(path, owner);
  throw FileSystemError(error, "Could not open", path);
}

UniqueFd openCheckedDirectory(const std::string& path, uid_t owner, const OpenHook& beforeOpen) {
  Security::validateDirectory(path, owner);
  UniqueFd directory = openDirectory(path, owner, beforeOpen);
  Security::validateDirectoryStatus(statusOf(directory.get(), path), owner);
  return directory;
}

UniqueFd openDirectoryForWrite(const std::string& path, uid_t owner, const OpenHook& beforeOpen) {
  makeDirectories(path);
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) throw FileSystemError(errno, "Could not inspect", path);
  validateRepairableDirectory(status, owner);
  UniqueFd directory = openDirectory(path, owner, beforeOpen);
  status = statusOf(directory.get(), path);
  validateRepairableDirectory(status, owner);
  if ((status.st_mode & 07777) != Security::expectedDirectoryPermissions &&
      ::fchmod(directory.get(), Security::expectedDirectoryPermissions) != 0) {
    throw FileSystemError(errno, "Could not set permissions of", path);
  }
  Security::validateDirectoryStatus(statusOf(directory.get(), path), owner);
  return directory;
}

void checkFileAt(int directory, const std::string& name, const std::string& path, uid_t owner) {
  struct stat status {};
  if (::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    throw FileSystemError(errno, "Could not inspect", path);
  }
  Security::validateStateFileStatus(status, owner);
}

// O_NONBLOCK and O_NOCTTY keep a special file swapped in from blocking or
// becoming our terminal before the descriptor check refuses it.
UniqueFd openCheckedFile(int directory, const std::string& name, const std::string& path, uid_t owner,
                         const OpenHook& beforeOpen) {
  checkFileAt(directory, name, path, owner);
  if (beforeOpen) beforeOpen(path);
  const int fd = ::openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) {
    const int error = errno;
    if (error == ELOOP) {
      throw HelperStateFileSecurityError::insecureStateFile(std::string(Security::symbolicLinkDetail));
    }
    throw FileSystemError(error, "Could not open", path);
  }
  UniqueFd file(fd);
  Security::validateStateFileStatus(statusOf(file.get(), path), owner);
  return file;
}

// The file may hold a secret, so it is read straight into one buffer sized
// from fstat; growing it copies and wipes, leaving no stray copies behind.
Bytes readAll(int fd, const std::string& path) {
  constexpr std::size_t limit = SecureStateFile::maximumFileSize;
  const auto size = static_cast<std::size_t>(statusOf(fd, path).st_size);
  if (size > limit) throw FileSystemError(EFBIG, "Could not read", path);
  Bytes bytes(size + 1);
  std::size_t used = 0;
  try {
    for (;;) {
      if (used == bytes.size()) {
        if (used > limit) throw FileSystemError(EFBIG, "Could not read", path);
        Bytes larger(std::min(used * 2, limit + 1));
        std::copy(bytes.begin(), bytes.end(), larger.begin());
        secureWipe(bytes);
        bytes.swap(larger);
      }
      const ssize_t count =
          internal::retryOnInterrupt([&] { return ::read(fd, bytes.data() + used, bytes.size() - used); });
      if (count < 0) throw FileSystemError(errno, "Could not read", path);
      if (count == 0) break;
      used += static_cast<std::size_t>(count);
    }
  } catch (...) {
    secureWipe(bytes);
    throw;
  }
  bytes.resize(used);
  return bytes;
}

void writeAll(int fd, const Bytes& bytes, const std::string& path) {
  std::size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t count = internal::retryOnInterrupt(
        [&] { return ::write(fd, bytes.data() + written, bytes.size() - written); });
    if (count < 0) throw FileSystemError(errno, "Could not write", path);
    written += static_cast<std::size_t>(count);
  }
}

void syncDirectory(int directory, const std::string& path) {
  if (::fsync(directory) != 0) throw FileSystemError(errno, "Could not sync", path);
}

constexpr std::size_t kSuffixLength = 8;

// A write cut short by a crash (killed between creating its temporary copy and
// renaming it) leaves the copy behind; the next write of the same file clears
// it. Callers serialise writes of one file, so no live copy is taken.
void removeStaleTemporaries(int directory, const std::string& fileName) noexcept {
  const int listing = ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (listing < 0) return;
  DIR* entries = ::fdopendir(listing);
  if (entries == nullptr) {
    ::close(listing);
    return;
  }
  const std::string prefix = "." + fileName + ".";
  std::vector<std::string> stale;
  // readdir is only unsafe on a shared stream; this one is private to the call.
  while (const dirent* entry = ::readdir(entries)) {  // NOLINT(concurrency-mt-unsafe)
    const std::string_view name(entry->d_name);
    if (name.size() == prefix.size() + kSuffixLength && name.starts_with(prefix)) stale.emplace_back(name);
  }
  ::closedir(entries);
  for (const std::string& name : stale) ::unlinkat(directory, name.c_str(), 0);  // never a directory
}

std::string randomSuffix(const std::string& targetPath) {
  static constexpr std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  unsigned char random[kSuffixLength] = {};
  if (::getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
    throw FileSystemError(errno, "Could not write", targetPath);
  }
  std::string suffix;
  for (unsigned char byte : random) suffix += alphabet[byte % alphabet.size()];
  return suffix;
}

// A uniquely named file beside the target, removed unless it was renamed into place.
class TemporaryFile final {
 public:
  TemporaryFile(int directory, const std::string& fileName, const std::string& targetPath)
      : directory_(directory) {
    for (int attempt = 0; attempt < 32; ++attempt) {
      name_ = "." + fileName + "." + randomSuffix(targetPath);
      const int fd =
          ::openat(directory, name_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
      if (fd >= 0) {
        file_.reset(fd);
        return;
      }
      if (errno != EEXIST) throw FileSystemError(errno, "Could not write", targetPath);
    }
    throw FileSystemError(EEXIST, "Could not write", targetPath);
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() {
    if (!committed_) ::unlinkat(directory_, name_.c_str(), 0);
  }

  [[nodiscard]] int fd() const noexcept { return file_.get(); }

  void renameOver(const std::string& fileName, const std::string& targetPath) {
    if (::renameat(directory_, name_.c_str(), directory_, fileName.c_str()) != 0) {
      throw FileSystemError(errno, "Could not replace", targetPath);
    }
    committed_ = true;
  }

 private:
  int directory_;
  std::string name_;
  UniqueFd file_;
  bool committed_ = false;
};

std::string joinPath(const std::string& directory, const std::string& name) {
  if (!directory.empty() && directory.back() == '/') return directory + name;
  return directory + "/" + name;
}

}  // namespace

SecureStateFile::SecureStateFile(std::string directoryPath, std::string fileName, uid_t expectedOwner)
    : directoryPath_(std::move(directoryPath)),
      fileName_(std::move(fileName)),
      filePath_(joinPath(directoryPath_, fileName_)),
      expectedOwner_(expectedOwner) {}

void SecureStateFile::write(const Bytes& bytes) const {
  {
    const UniqueFd directory = openDirectoryForWrite(directoryPath_, expectedOwner_, beforeOpen_);
    removeStaleTemporaries(directory.get(), fileName_);
    TemporaryFile temporary(directory.get(), fileName_, filePath_);
    writeAll(temporary.fd(), bytes, filePath_);
    if (::fsync(temporary.fd()) != 0) throw FileSystemError(errno, "Could not write", filePath_);
    if (::fchmod(temporary.fd(), Security::expectedStateFilePermissions) != 0) {
      throw FileSystemError(errno, "Could not set permissions of", filePath_);
    }
    temporary.renameOver(fileName_, filePath_);
    syncDirectory(directory.get(), directoryPath_);
  }
  validate();
}

void SecureStateFile::validate() const {
  const UniqueFd directory = openCheckedDirectory(directoryPath_, expectedOwner_, beforeOpen_);
  checkFileAt(directory.get(), fileName_, filePath_, expectedOwner_);
}

bool SecureStateFile::exists() const {
  struct stat status {};
  if (::lstat(filePath_.c_str(), &status) == 0) return true;
  if (errno == ENOENT || errno == ENOTDIR) return false;
  throw FileSystemError(errno, "Could not inspect", filePath_);
}

std::optional<Bytes> SecureStateFile::read() const {
  if (!exists()) return std::nullopt;
  const UniqueFd directory = openCheckedDirectory(directoryPath_, expectedOwner_, beforeOpen_);
  const UniqueFd file = openCheckedFile(directory.get(), fileName_, filePath_, expectedOwner_, beforeOpen_);
  return readAll(file.get(), filePath_);
}

bool SecureStateFile::remove() const {
  if (!exists()) return false;
  const UniqueFd directory = openCheckedDirectory(directoryPath_, expectedOwner_, beforeOpen_);
  checkFileAt(directory.get(), fileName_, filePath_, expectedOwner_);
  if (::unlinkat(directory.get(), fileName_.c_str(), 0) != 0) {
    throw FileSystemError(errno, "Could not remove", filePath_);
  }
  syncDirectory(directory.get(), directoryPath_);
  return true;
}

}  // namespace harborkeeper
