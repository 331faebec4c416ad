// The queued maintenance requests of the service: power recovery, the
// heartbeat's configuration and status, and the clean-up before uninstall.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "core/foundation/text.h"
#include "core/platform/state_file_security.h"
#include "helper/helper_service.h"

namespace harborkeeper {

namespace {

using Result = ipc::HelperCommandResult;

constexpr double kPmsetTimeout = 30.0;

Result failure(std::string message) { return {false, std::move(message)}; }

struct DirectoryCloser {
  void operator()(DIR* directory) const noexcept { (void)::closedir(directory); }
};

// Whether the directory at `path`, opened without following a link, has any
// entry besides "." and "..". Throws FileSystemError.
bool directoryHasEntries(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (descriptor < 0) throw FileSystemError(errno, "Could not open", path);
  const std::unique_ptr<DIR, DirectoryCloser> directory(::fdopendir(descriptor));
  if (!directory) {
    const int error = errno;
    ::close(descriptor);
    throw FileSystemError(error, "Could not list", path);
  }
  errno = 0;
  // readdir is only unsafe on a shared stream; this one is private to the call.
  while (const dirent* entry = ::readdir(directory.get())) {  // NOLINT(concurrency-mt-unsafe)
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") return true;
  }
  if (errno != 0) throw FileSystemError(errno, "Could not list", path);
  return false;
}

}  // namespace

Result HelperService::enableAutomaticPowerRecovery() {
  const CommandResult result =
      commandRunner_->run(configuration_.pmsetPath, {"-a", "autorestart", "1"}, std::nullopt, kPmsetTimeout);
  if (result.exitCode == 0) return {true, "Automatic power recovery is enabled."};
  for (const std::string* output : {&result.standardError, &result.standardOutput}) {
    std::string message = text::trimmed(*output);
    if (!message.empty()) return failure(std::move(message));
  }
  return failure("pmset failed with exit code " + std::to_string(result.exitCode) + ".");
}

Result HelperService::configureDockerHeartbeat(const Bytes& data) {
  try {
    DockerHeartbeatConfiguration configuration = DockerHeartbeatConfiguration::decode(asStringView(data));
    const WipeOnExit wipe(configuration);
    heartbeatStore_.store(configuration);
  } catch (const std::exception& error) {
    return failure(error.what());
  }
  heartbeatManager_->reload();
  return {true, "Docker heartbeat is configured."};
}

Result HelperService::disableDockerHeartbeat() {
  try {
    heartbeatStore_.remove();
  } catch (const std::exception& error) {
    return failure(error.what());
  }
  heartbeatManager_->stop();
  return {true, "Docker heartbeat is disabled."};
}

std::optional<Bytes> HelperService::dockerHeartbeatStatusData() const {
  DockerHeartbeatStatus status;
  try {
    DockerHeartbeatConfiguration configuration = heartbeatStore_.load();
    const WipeOnExit wipe(configuration);
    status = DockerHeartbeatStatus::of(configuration);
  } catch (const std::exception&) {
    status = DockerHeartbeatStatus{};  // not configured, as far as anyone asking can tell
  }
  try {
    return status.encodeXml();
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

Result HelperService::prepareForUninstall() {
  try {
    heartbeatManager_->stop();
    heartbeatStore_.remove();
    clearPersistentState();
    removeApplicationSupportDirectoryIfEmpty();
  } catch (const std::exception& error) {
    return failure(error.what());
  }
  return {true, "Harborkeeper helper state removed."};
}

// Anything left in the directory (a file we do not know) keeps it, silently.
void HelperService::removeApplicationSupportDirectoryIfEmpty() const {
  const std::string& path = configuration_.stateDirectory;
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) return;
    throw FileSystemError(errno, "Could not inspect", path);
  }
  HelperStateFileSecurity::validateDirectoryStatus(status, configuration_.stateOwner);
  if (directoryHasEntries(path)) return;
  if (::rmdir(path.c_str()) != 0) throw FileSystemError(errno, "Could not remove", path);
}

}  // namespace harborkeeper
