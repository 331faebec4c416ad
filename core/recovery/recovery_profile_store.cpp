#include "core/recovery/recovery_profile_store.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "core/foundation/uuid.h"
#include "core/platform/internal/retry.h"
#include "core/platform/state_file_security.h"
#include "core/platform/unique_fd.h"

namespace harborkeeper {

namespace {

namespace fs = std::filesystem;
using json::Json;

constexpr std::size_t kMaximumFileSize = std::size_t{16} << 20;

[[noreturn]] void failFile(int errorNumber, std::string_view operation, const fs::path& file) {
  throw RecoveryProfileStoreError(FileSystemError(errorNumber, operation, file.string()).what());
}

[[noreturn]] void failNotAnArray(const fs::path& file) {
  throw RecoveryProfileStoreError(file.string() + ": not a JSON array of profiles.");
}

// Nothing when the file does not exist.
std::optional<std::string> readFile(const fs::path& file) {
  const UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!fd) {
    if (errno == ENOENT || errno == ENOTDIR) return std::nullopt;
    failFile(errno, "Could not read", file);
  }
  std::string content;
  char buffer[8192];
  for (;;) {
    const ssize_t count = internal::retryOnInterrupt([&] { return ::read(fd.get(), buffer, sizeof buffer); });
    if (count < 0) failFile(errno, "Could not read", file);
    if (count == 0) return content;
    if (content.size() + static_cast<std::size_t>(count) > kMaximumFileSize) {
      failFile(EFBIG, "Could not read", file);
    }
    content.append(buffer, static_cast<std::size_t>(count));
  }
}

Json parseArray(const std::string& content, const fs::path& file) {
  try {
    Json array = json::parse(content);
    if (array.is_array()) return array;
  } catch (const json::DecodeError&) {
  }
  failNotAnArray(file);
}

void rejectDuplicateIds(const std::vector<RecoveryProfile>& profiles, const fs::path& file) {
  std::set<std::string> seen;
  for (const RecoveryProfile& profile : profiles) {
    const std::string id = uuid::parse(profile.id).value_or(profile.id);
    if (!seen.insert(id).second) {
      throw RecoveryProfileStoreError(file.string() + ": two profiles have the id " + id + ".");
    }
  }
}

// Members of the profiles on disk that this version does not know, by id.
std::map<std::string, Json> unknownMembersById(const fs::path& file) {
  std::map<std::string, Json> unknown;
  const std::optional<std::string> content = readFile(file);
  if (!content) return unknown;
  for (const Json& stored : parseArray(*content, file)) {
    const auto id = stored.is_object() && stored.contains("id") && stored["id"].is_string()
                        ? uuid::parse(stored["id"].get<std::string>())
                        : std::nullopt;
    if (!id) continue;
    Json extra = stored;
    for (const std::string_view key : recoveryProfileCodingKeys()) extra.erase(std::string(key));
    unknown.emplace(*id, std::move(extra));
  }
  return unknown;
}

// Missing directories are private: the list says which machines exist and how to reach them.
void makeDirectories(const fs::path& directory, const fs::path& file) {
  fs::path prefix;
  for (const fs::path& part : directory) {
    prefix /= part;
    if (::mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST) failFile(errno, "Could not save", file);
  }
}

void writeAll(int fd, std::string_view content, const fs::path& file) {
  while (!content.empty()) {
    const ssize_t count =
        internal::retryOnInterrupt([&] { return ::write(fd, content.data(), content.size()); });
    if (count < 0) failFile(errno, "Could not save", file);
    content.remove_prefix(static_cast<std::size_t>(count));
  }
}

// Temporary file beside the target, fsync, rename over it, fsync of the
// directory: a crash leaves the old list or the new one, never a torn file.
void replaceAtomically(const fs::path& file, std::string_view content) {
  const fs::path directory = file.has_parent_path() ? file.parent_path() : fs::path(".");
  makeDirectories(directory, file);
  std::string temporary = (directory / ("." + file.filename().string() + ".XXXXXX")).string();
  const UniqueFd fd(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!fd) failFile(errno, "Could not save", file);
  try {
    if (::fchmod(fd.get(), 0600) != 0) failFile(errno, "Could not save", file);
    writeAll(fd.get(), content, file);
    if (::fsync(fd.get()) != 0) failFile(errno, "Could not save", file);
    if (::rename(temporary.c_str(), file.c_str()) != 0) failFile(errno, "Could not save", file);
  } catch (...) {
    ::unlink(temporary.c_str());
    throw;
  }
  const UniqueFd parent(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!parent || ::fsync(parent.get()) != 0) failFile(errno, "Could not save", file);
}

// A link (a dotfile manager's, say) keeps pointing at the list it names.
fs::path writeTarget(const fs::path& file) {
  std::error_code error;
  if (!fs::is_symlink(fs::symlink_status(file, error))) return file;
  const fs::path target = fs::weakly_canonical(file, error);
  return error ? file : target;
}

std::optional<fs::path> homeDirectory() {
  const char* home = std::getenv("HOME");  // NOLINT(concurrency-mt-unsafe): nothing sets the environment
  if (home != nullptr && fs::path(home).is_absolute()) return fs::path(home);
  const long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::string buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : 16384, '\0');
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr ||
      found->pw_dir == nullptr || found->pw_dir[0] != '/') {
    return std::nullopt;
  }
  return fs::path(found->pw_dir);
}

bool equalIgnoringCase(std::string_view left, std::string_view right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
  });
}

template <typename Profiles>
auto findIn(Profiles& profiles, std::string_view nameOrId) -> decltype(&profiles.front()) {
  for (auto& profile : profiles) {
    if (profile.macName == nameOrId) return &profile;
  }
  for (auto& profile : profiles) {
    if (equalIgnoringCase(profile.id, nameOrId)) return &profile;
  }
  return nullptr;
}

}  // namespace

RecoveryProfileStore::RecoveryProfileStore(std::filesystem::path file) : file_(std::move(file)) {}

std::filesystem::path RecoveryProfileStore::defaultPath() {
  const fs::path relative = fs::path("harborkeeper") / "profiles.json";
  const char* configHome = std::getenv("XDG_CONFIG_HOME");  // NOLINT(concurrency-mt-unsafe): as above
  if (configHome != nullptr && fs::path(configHome).is_absolute()) return fs::path(configHome) / relative;
  const std::optional<fs::path> home = homeDirectory();
  if (!home) throw RecoveryProfileStoreError("Could not find the home directory for the profile list.");
  return *home / ".config" / relative;
}

std::vector<RecoveryProfile> RecoveryProfileStore::load() const {
  const std::optional<std::string> content = readFile(file_);
  if (!content) return {};
  const Json array = parseArray(*content, file_);
  std::vector<RecoveryProfile> profiles;
  profiles.reserve(array.size());
  for (const Json& stored : array) {
    try {
      profiles.push_back(decodeRecoveryProfile(stored));
    } catch (const RecoveryProfileDecodeError& error) {
      throw RecoveryProfileStoreError(file_.string() + ": profile " + std::to_string(profiles.size() + 1) +
                                      ": " + error.what());
    }
  }
  rejectDuplicateIds(profiles, file_);
  return profiles;
}

void RecoveryProfileStore::save(const std::vector<RecoveryProfile>& profiles) const {
  rejectDuplicateIds(profiles, file_);
  const fs::path target = writeTarget(file_);
  std::map<std::string, Json> unknown = unknownMembersById(target);
  Json array = Json::array();
  for (const RecoveryProfile& profile : profiles) {
    Json object = encodeRecoveryProfile(profile);
    const auto extra = unknown.find(uuid::parse(profile.id).value_or(profile.id));
    if (extra != unknown.end()) object.update(extra->second);
    array.push_back(std::move(object));
  }
  replaceAtomically(target, json::serializePretty(array) + '\n');
}

const RecoveryProfile* RecoveryProfileStore::find(const std::vector<RecoveryProfile>& profiles,
                                                  std::string_view nameOrId) {
  return findIn(profiles, nameOrId);
}

RecoveryProfile* RecoveryProfileStore::find(std::vector<RecoveryProfile>& profiles,
                                            std::string_view nameOrId) {
  return findIn(profiles, nameOrId);
}

}  // namespace harborkeeper
