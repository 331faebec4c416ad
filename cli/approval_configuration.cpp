#include "cli/approval_configuration.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "cli/export_commands.h"
#include "core/approval/curl_phone_approval_transport.h"
#include "core/foundation/bytes.h"
#include "core/foundation/json.h"
#include "core/platform/internal/retry.h"
#include "core/platform/state_file_security.h"
#include "core/platform/unique_fd.h"
#include "core/recovery/recovery_profile_store.h"

namespace harborkeeper::cli {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaximumFileSize = std::size_t{64} * 1024;

[[noreturn]] void failRead(int errorNumber, const fs::path& file) {
  throw CommandError(FileSystemError(errorNumber, "Could not read", file.string()).what());
}

// The key named, never the value: the file holds a secret.
template <typename Read>
auto member(const fs::path& file, std::string_view key, Read read) {
  try {
    return read();
  } catch (const json::DecodeError&) {
    throw CommandError(file.string() + ": \"" + std::string(key) + "\" is missing or not of the right type.");
  }
}

ApprovalConfiguration decode(const fs::path& file, std::string_view text) {
  json::Json object;
  try {
    object = json::parse(text);
  } catch (const json::DecodeError&) {
    throw CommandError(file.string() + " is not JSON.");
  }
  if (!object.is_object()) throw CommandError(file.string() + " is not a JSON object.");
  ApprovalConfiguration c;
  c.endpointURL = member(file, "endpointURL", [&] { return json::requireString(object, "endpointURL"); });
  c.listenerID = member(file, "listenerID", [&] { return json::requireString(object, "listenerID"); });
  c.listenerSecret =
      member(file, "listenerSecret", [&] { return json::requireString(object, "listenerSecret"); });
  c.defaultTTLSeconds =
      member(file, "defaultTTLSeconds", [&] { return json::requireInteger(object, "defaultTTLSeconds"); });
  c.caFile = member(file, "caFile", [&] { return json::optionalString(object, "caFile"); }).value_or("");
  secureWipe(object["listenerSecret"].get_ref<std::string&>());
  if (c.defaultTTLSeconds <= 0) {
    throw CommandError(file.string() + ": \"defaultTTLSeconds\" must be positive.");
  }
  return c;
}

}  // namespace

std::string readPrivateFile(const fs::path& path, std::string_view what) {
  const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK));
  if (!fd) failRead(errno, path);
  struct stat status {};
  if (::fstat(fd.get(), &status) != 0) failRead(errno, path);
  if (!S_ISREG(status.st_mode)) throw CommandError(path.string() + " is not a regular file.");
  if (status.st_uid != ::geteuid() || (status.st_mode & 077) != 0) {
    throw CommandError(path.string() + " holds " + std::string(what) +
                       " but other users may read or change it; it must be yours with mode 0600.");
  }
  if (status.st_size > static_cast<off_t>(kMaximumFileSize)) failRead(EFBIG, path);
  std::string content(static_cast<std::size_t>(status.st_size), '\0');
  std::size_t filled = 0;
  while (filled < content.size()) {
    const ssize_t count = internal::retryOnInterrupt(
        [&] { return ::read(fd.get(), content.data() + filled, content.size() - filled); });
    if (count <= 0) {
      const int error = count < 0 ? errno : EIO;
      secureWipe(content);
      failRead(error, path);
    }
    filled += static_cast<std::size_t>(count);
  }
  return content;
}

fs::path ApprovalConfigurationStore::defaultPath() {
  try {
    return RecoveryProfileStore::defaultPath().parent_path() / "approval.json";
  } catch (const RecoveryProfileStoreError&) {
    throw CommandError(
        "Could not find the home directory for the phone approval settings; give --approval-config.");
  }
}

ApprovalConfigurationStore ApprovalConfigurationStore::chosen(const std::string& file) {
  return ApprovalConfigurationStore(file.empty() ? defaultPath() : fs::path(file));
}

std::optional<ApprovalConfiguration> ApprovalConfigurationStore::load() const {
  std::error_code error;
  if (!fs::exists(fs::symlink_status(file_, error))) return std::nullopt;
  std::string text = readPrivateFile(file_, "the listener secret");
  const WipeOnExit wipe(text);
  return decode(file_, text);
}

ApprovalConfiguration ApprovalConfigurationStore::require() const {
  std::optional<ApprovalConfiguration> configuration = load();
  if (!configuration) {
    throw CommandError("Phone approval route is not configured: " + file_.string() +
                       " does not exist. Run 'harborkeeper approval register' first.");
  }
  return std::move(*configuration);
}

void ApprovalConfigurationStore::save(const ApprovalConfiguration& c) const {
  const fs::path directory = file_.has_parent_path() ? file_.parent_path() : fs::path(".");
  std::error_code error;
  if (!fs::exists(directory, error)) {
    fs::create_directories(directory, error);
    if (error) {
      throw CommandError(FileSystemError(error.value(), "Could not create", directory.string()).what());
    }
    fs::permissions(directory, fs::perms::owner_all, error);
  }
  json::Json object = {{"endpointURL", c.endpointURL},
                       {"listenerID", c.listenerID},
                       {"listenerSecret", c.listenerSecret},
                       {"defaultTTLSeconds", c.defaultTTLSeconds}};
  if (!c.caFile.empty()) object["caFile"] = c.caFile;
  std::string text = json::serializePretty(object) + '\n';
  secureWipe(object["listenerSecret"].get_ref<std::string&>());
  const WipeOnExit wipe(text);
  writePrivateFileAtomically(file_, text);
}

PhoneApprovalMiddlewareClient makeApprovalClient(const ApprovalConfiguration& c) {
  auto transport =
      std::make_shared<const CurlPhoneApprovalTransport>(CurlPhoneApprovalTransportOptions{c.caFile});
  return PhoneApprovalMiddlewareClient({c.endpointURL, c.listenerID, c.listenerSecret, c.defaultTTLSeconds},
                                       std::move(transport));
}

}  // namespace harborkeeper::cli
