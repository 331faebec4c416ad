#include "core/protection/protection_status_store.h"

namespace harborkeeper {

namespace {

std::string storeErrorMessage(ProtectionStatusStoreError::Kind kind, const std::string& detail) {
  if (kind == ProtectionStatusStoreError::Kind::encodeFailed) {
    return "Harborkeeper could not encode protection status.";
  }
  return "Harborkeeper could not write protection status. " + detail;
}

struct WriteErrors {
  static ProtectionStatusStoreError writeFailed(std::string detail) {
    return ProtectionStatusStoreError::writeFailed(std::move(detail));
  }
};

}  // namespace

ProtectionStatusStoreError::ProtectionStatusStoreError(Kind kind, std::string detail)
    : std::runtime_error(storeErrorMessage(kind, detail)), kind_(kind), detail_(std::move(detail)) {}

ProtectionStatusStore::ProtectionStatusStore(std::string directoryPath, uid_t expectedOwner)
    : file_(std::move(directoryPath), std::string(HelperConstants::protectionStatusFileName), expectedOwner) {
}

void ProtectionStatusStore::store(const HelperProtectionStatus& status) const {
  const Bytes bytes = status.encodeXml();
  secure_store::writeRecord(file_, bytes, WriteErrors{});
}

void ProtectionStatusStore::clear() const { file_.remove(); }

void ProtectionStatusStore::validateSecureStatusState() const { file_.validate(); }

std::optional<Bytes> ProtectionStatusStore::loadData() const { return file_.read(); }

}  // namespace harborkeeper
