#pragma once

#include <sys/types.h>

#include <string>

#include "core/heartbeat/docker_heartbeat_configuration.h"
#include "core/platform/secure_state_file.h"
#include "core/protection/helper_constants.h"

namespace harborkeeper {

// The heartbeat configuration, kept as <directory>/DockerHeartbeat.plist under
// the private state file rules. A plain value: every call re-reads and
// re-checks the file. Errors are DockerHeartbeatConfigurationStoreError except
// where said.
class DockerHeartbeatConfigurationStore final {
 public:
  explicit DockerHeartbeatConfigurationStore(
      std::string directoryPath = std::string(HelperConstants::linuxStateDirectoryPath),
      uid_t expectedOwner = HelperStateFileSecurity::expectedOwnerAccountID);

  // Validates first (invalidConfiguration); a failure after encoding is
  // writeFailed.
  void store(const DockerHeartbeatConfiguration& configuration) const;

  // missingConfiguration, insecureConfiguration, loadFailed, or
  // invalidConfiguration for a file that does not decode or validate.
  [[nodiscard]] DockerHeartbeatConfiguration load() const;

  // A missing file is not an error; HelperStateFileSecurityError and
  // FileSystemError pass unchanged. The directory stays.
  void remove() const;

  [[nodiscard]] const std::string& filePath() const noexcept { return file_.filePath(); }

 private:
  SecureStateFile file_;
};

}  // namespace harborkeeper
