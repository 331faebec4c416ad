#include "helper/credential_store.h"

#include <string>
#include <utility>

#include "core/foundation/bytes.h"
#include "core/foundation/text.h"
#include "core/protection/helper_constants.h"

namespace harborkeeper {
namespace {

using Kind = CredentialStoreError::Kind;

constexpr std::string_view kLabel = "Harborkeeper FileVault Credential";
constexpr std::string_view kDescription =
    "Credential used by Harborkeeper Helper to arm authenticated restart.";
constexpr std::string_view kAccessibility = "afterFirstUnlockThisDeviceOnly";

std::string messageFor(Kind kind, OSStatus status) {
  const std::string code = "OSStatus " + std::to_string(status) + ".";
  switch (kind) {
    case Kind::systemKeychainUnavailable:
      return "The System Keychain could not be resolved. " + code;
    case Kind::storeFailed:
      return "The credential could not be stored in the System Keychain. " + code;
    case Kind::loadFailed:
      return "The stored credential could not be read from the System Keychain. " + code;
    case Kind::deleteFailed:
      return "The stored Harborkeeper credential could not be removed. " + code;
    case Kind::emptyUsername:
      return "Choose a FileVault user.";
    case Kind::emptyPassword:
      return "Enter the selected user's password.";
    case Kind::missingCredential:
      return "No persistent Harborkeeper credential is stored.";
    case Kind::invalidCredentialData:
      return "The stored Harborkeeper credential is invalid.";
  }
  return "The stored Harborkeeper credential is invalid.";
}

// Strict UTF-8 (no overlong forms, surrogates or code points past U+10FFFF),
// checked in place so the password is not copied for the test.
bool isValidUtf8(std::string_view text) noexcept {
  static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  std::size_t at = 0;
  while (at < text.size()) {
    const auto lead = static_cast<unsigned char>(text[at]);
    std::size_t length = 1;
    char32_t point = lead;
    if ((lead & 0xE0u) == 0xC0u) {
      length = 2, point = lead & 0x1Fu;
    } else if ((lead & 0xF0u) == 0xE0u) {
      length = 3, point = lead & 0x0Fu;
    } else if ((lead & 0xF8u) == 0xF0u) {
      length = 4, point = lead & 0x07u;
    } else if (lead >= 0x80) {
      return false;
    }
    if (text.size() - at < length) return false;
    for (std::size_t next = 1; next < length; ++next) {
      const auto byte = static_cast<unsigned char>(text[at + next]);
      if ((byte & 0xC0u) != 0x80u) return false;
      point = (point << 6) | (byte & 0x3Fu);
    }
    if (point < kSmallest[length] || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return false;
    at += length;
  }
  return true;
}

void resolveOrThrow(CredentialVault& vault) {
  const OSStatus status = vault.resolve();
  if (status != KeychainStatus::success) throw CredentialStoreError(Kind::systemKeychainUnavailable, status);
}

void deleteOrThrow(CredentialVault& vault) {
  const OSStatus status = vault.deleteItems(HelperConstants::persistentCredentialService);
  if (status != KeychainStatus::success && status != KeychainStatus::itemNotFound) {
    throw CredentialStoreError(Kind::deleteFailed, status);
  }
}

}  // namespace

CredentialStoreError::CredentialStoreError(Kind kind, OSStatus status)
    : std::runtime_error(messageFor(kind, status)), kind_(kind), status_(status) {}

// A moved-from short string keeps its characters, so the parameter is wiped too.
StoredCredential::StoredCredential(std::string username, std::string password)
    : username(std::move(username)), password(std::move(password)) {
  secureWipe(password);  // the parameter, not the member
}

StoredCredential::~StoredCredential() { secureWipe(password); }

CredentialStore::CredentialStore(std::shared_ptr<CredentialVault> vault) : vault_(std::move(vault)) {}

void CredentialStore::store(std::string_view username, std::string_view password) {
  std::string account = text::trimmed(username);
  if (account.empty()) throw CredentialStoreError(Kind::emptyUsername);
  if (password.empty()) throw CredentialStoreError(Kind::emptyPassword);
  resolveOrThrow(*vault_);
  deleteOrThrow(*vault_);
  CredentialItem item;
  item.service = HelperConstants::persistentCredentialService;
  item.account = std::move(account);
  item.label = kLabel;
  item.description = kDescription;
  item.accessibility = kAccessibility;
  item.passwordData = password;
  const OSStatus status = vault_->addItem(item);
  if (status != KeychainStatus::success) throw CredentialStoreError(Kind::storeFailed, status);
}

StoredCredential CredentialStore::load() {
  resolveOrThrow(*vault_);
  std::optional<CredentialItem> item;
  const OSStatus status = vault_->copyItem(HelperConstants::persistentCredentialService, item);
  if (status == KeychainStatus::itemNotFound) throw CredentialStoreError(Kind::missingCredential);
  if (status != KeychainStatus::success) throw CredentialStoreError(Kind::loadFailed, status);
  if (!item || item->account.empty() || !isValidUtf8(item->passwordData)) {
    throw CredentialStoreError(Kind::invalidCredentialData);
  }
  // Copied, not moved: a moved short string leaves its bytes in a buffer that
  // no destructor here would wipe, while the item wipes its own.
  StoredCredential credential;
  credential.username = item->account;
  credential.password.assign(item->passwordData);
  return credential;
}

void CredentialStore::remove() {
  resolveOrThrow(*vault_);
  deleteOrThrow(*vault_);
}

}  // namespace harborkeeper
