#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "helper/credential_vault.h"

namespace harborkeeper {

class CredentialStoreError : public std::runtime_error {
 public:
  enum class Kind {
    systemKeychainUnavailable,
    storeFailed,
    loadFailed,
    deleteFailed,
    emptyUsername,
    emptyPassword,
    missingCredential,
    invalidCredentialData,
  };

  // The status is carried only by the first four kinds.
  CredentialStoreError(Kind kind, OSStatus status = 0);

  [[nodiscard]] Kind kind() const noexcept { return kind_; }
  [[nodiscard]] OSStatus status() const noexcept { return status_; }

 private:
  Kind kind_;
  OSStatus status_;
};

// What load() read back. The password is wiped when this goes.
struct StoredCredential {
  std::string username;
  std::string password;

  StoredCredential() = default;
  StoredCredential(std::string username, std::string password);
  StoredCredential(StoredCredential&&) noexcept = default;
  StoredCredential& operator=(StoredCredential&&) noexcept = default;
  StoredCredential(const StoredCredential&) = delete;
  StoredCredential& operator=(const StoredCredential&) = delete;
  ~StoredCredential();
};

// The persistent credential: at most one item of
// HelperConstants::persistentCredentialService in the vault. Throws
// CredentialStoreError only. Callers serialise use (the operation queue).
class CredentialStore final {
 public:
  explicit CredentialStore(std::shared_ptr<CredentialVault> vault);

  // Delete then add: there is never an update in place.
  void store(std::string_view username, std::string_view password);
  [[nodiscard]] StoredCredential load();
  // Nothing stored counts as deleted.
  void remove();

 private:
  std::shared_ptr<CredentialVault> vault_;
};

}  // namespace harborkeeper
