#include "helper/docker_heartbeat_configuration_store.h"

#include <utility>

namespace harborkeeper {

namespace {

using Error = DockerHeartbeatConfigurationStoreError;

struct StoreErrors {
  static Error missingFile() { return Error::missingConfiguration(); }
  static Error insecureState(std::string detail) { return Error::insecureConfiguration(std::move(detail)); }
  static Error readFailed(std::string detail) { return Error::loadFailed(std::move(detail)); }
  static Error writeFailed(std::string detail) { return Error::writeFailed(std::move(detail)); }
  static Error invalidValue(std::string detail) { return Error::invalidConfiguration(std::move(detail)); }
};

}  // namespace

DockerHeartbeatConfigurationStore::DockerHeartbeatConfigurationStore(std::string directoryPath,
                                                                     uid_t expectedOwner)
    : file_(std::move(directoryPath), std::string(HelperConstants::dockerHeartbeatConfigurationFileName),
            expectedOwner) {}

void DockerHeartbeatConfigurationStore::store(const DockerHeartbeatConfiguration& configuration) const {
  configuration.validate();
  Bytes bytes = configuration.encodeXml();
  const WipeOnExit wipe(bytes);
  secure_store::writeRecord(file_, bytes, StoreErrors{});
}

DockerHeartbeatConfiguration DockerHeartbeatConfigurationStore::load() const {
  return secure_store::loadRecord<Error>(file_, StoreErrors{}, [](const Bytes& bytes) {
    DockerHeartbeatConfiguration configuration = DockerHeartbeatConfiguration::decode(asStringView(bytes));
    try {
      configuration.validate();
    } catch (...) {
      configuration.secureWipe();
      throw;
    }
    return configuration;
  });
}

void DockerHeartbeatConfigurationStore::remove() const { file_.remove(); }

}  // namespace harborkeeper
