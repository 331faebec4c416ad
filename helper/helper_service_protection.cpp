// Restart protection: one-time arming, persistent protection and the records
// they leave. Every path ends in exactly one result, and every arming attempt
// the user could later ask about leaves a status behind.

#include <exception>
#include <string>
#include <utility>

#include "core/foundation/text.h"
#include "core/protection/file_vault_users.h"
#include "helper/helper_service.h"

namespace harborkeeper {

namespace {

using Result = ipc::HelperCommandResult;

Result failure(std::string message) { return {false, std::move(message)}; }

bool isMissingCredential(const CredentialStoreError& error) {
  return error.kind() == CredentialStoreError::Kind::missingCredential;
}

}  // namespace

std::optional<FileVaultUserValidationFailure> HelperService::validateSelectedFileVaultUser(
    std::string_view username) const {
  const std::string selected = text::trimmed(username);
  if (selected.empty()) return FileVaultUserValidationFailure{failure("Choose a FileVault user."), false};
  const FileVaultUserList list = listFileVaultUsers();
  if (list.unavailableReason) {
    return FileVaultUserValidationFailure{
        failure("Harborkeeper could not verify FileVault users before arming authenticated restart."), false};
  }
  if (list.users.size() != 1) {
    return FileVaultUserValidationFailure{
        failure(
            "Harborkeeper v1 requires exactly one FileVault-enabled local user before arming authenticated "
            "restart."),
        true};
  }
  if (list.users.front().accountName() != selected) {
    return FileVaultUserValidationFailure{
        failure(
            "The selected FileVault user no longer matches the detected local FileVault user. Refresh status "
            "and choose the detected user."),
        true};
  }
  return std::nullopt;
}

Result HelperService::recordStatusOrReplyFailure(HelperProtectionMode mode, Result result) {
  try {
    protectionStatusStore_.store({mode, result.success, clock_->now(), result.message});
    return result;
  } catch (const std::exception& storeError) {
    if (!result.success) return result;
    if (mode == HelperProtectionMode::nextRestart) {
      return failure("Authenticated restart was armed, but Harborkeeper could not record protection proof. " +
                     std::string(storeError.what()));
    }
    clearPersistentStateIgnoringErrors();
    return failure("Persistent protection was armed, but Harborkeeper could not record protection proof. " +
                   std::string(storeError.what()));
  }
}

void HelperService::clearPersistentState() {
  std::exception_ptr firstError;
  try {
    protectionStatusStore_.clear();
  } catch (const std::exception&) {
    firstError = std::current_exception();
  }
  try {
    credentialStore_.remove();
  } catch (const std::exception&) {
    if (!firstError) firstError = std::current_exception();
  }
  if (firstError) std::rethrow_exception(firstError);
}

void HelperService::clearPersistentStateIgnoringErrors() noexcept {
  try {
    clearPersistentState();
  } catch (const std::exception& error) {
    logger_.error(std::string("Clearing the persistent protection state failed: ") + error.what());
  }
}

void HelperService::storeFailedPersistentStatus(const std::string& message) noexcept {
  try {
    protectionStatusStore_.store({HelperProtectionMode::persistent, false, clock_->now(), message});
  } catch (const std::exception&) {  // the reply still carries the message
  }
}

bool HelperService::lastStatusIsPersistent() const noexcept {
  try {
    protectionStatusStore_.validateSecureStatusState();
    const std::optional<Bytes> data = protectionStatusStore_.loadData();
    return data &&
           HelperProtectionStatus::decode(asStringView(*data)).mode == HelperProtectionMode::persistent;
  } catch (const std::exception&) {
    return false;
  }
}

Result HelperService::armNextRestart(std::string_view username, std::string_view password) {
  Result result;
  if (const auto invalid = validateSelectedFileVaultUser(username)) {
    result = invalid->result;
  } else if (Result verified = passwordVerifier_.verify(username, password); !verified.success) {
    result = std::move(verified);
  } else {
    result = authRestartRunner_.armNextRestart(username, password);
  }
  return recordStatusOrReplyFailure(HelperProtectionMode::nextRestart, std::move(result));
}

Result HelperService::enablePersistentProtection(std::string_view username, std::string_view password,
                                                 Date /*authorizationExpiresAt*/) {
  constexpr auto persistent = HelperProtectionMode::persistent;
  if (const auto invalid = validateSelectedFileVaultUser(username)) {
    if (invalid->clearsPersistentState) clearPersistentStateIgnoringErrors();
    return recordStatusOrReplyFailure(persistent, invalid->result);
  }
  try {
    clearPersistentState();
  } catch (const std::exception& error) {
    const std::string message =
        "Harborkeeper could not clear the previous automatic unlock state. " + std::string(error.what());
    storeFailedPersistentStatus(message);
    return failure(message);
  }
  if (Result verified = passwordVerifier_.verify(username, password); !verified.success) {
    return recordStatusOrReplyFailure(persistent, std::move(verified));
  }
  if (Result armed = authRestartRunner_.armNextRestart(username, password); !armed.success) {
    return recordStatusOrReplyFailure(persistent, std::move(armed));
  }
  try {
    credentialStore_.store(username, password);
  } catch (const std::exception& error) {
    clearPersistentStateIgnoringErrors();
    const std::string message =
        "Authenticated restart was armed for the next restart, but persistent protection could not be "
        "stored. " +
        std::string(error.what());
    storeFailedPersistentStatus(message);
    return failure(message);
  }
  return recordStatusOrReplyFailure(
      persistent, {true, "Persistent protection is enabled and the next restart is armed."});
}

Result HelperService::armPersistentProtection() {
  constexpr auto persistent = HelperProtectionMode::persistent;
  const bool wasPersistent = lastStatusIsPersistent();
  StoredCredential credential;
  try {
    credential = credentialStore_.load();
  } catch (const CredentialStoreError& error) {
    const bool unusable = error.kind() == CredentialStoreError::Kind::invalidCredentialData;
    // A credential that could not be read now is kept for the next attempt.
    if (isMissingCredential(error) || unusable) clearPersistentStateIgnoringErrors();
    if (!isMissingCredential(error) || wasPersistent) storeFailedPersistentStatus(error.what());
    return failure(error.what());
  }
  if (const auto invalid = validateSelectedFileVaultUser(credential.username)) {
    if (invalid->clearsPersistentState) clearPersistentStateIgnoringErrors();
    return recordStatusOrReplyFailure(persistent, invalid->result);
  }
  if (Result verified = passwordVerifier_.verify(credential.username, credential.password);
      !verified.success) {
    clearPersistentStateIgnoringErrors();
    return recordStatusOrReplyFailure(persistent, std::move(verified));
  }
  return recordStatusOrReplyFailure(
      persistent, authRestartRunner_.armNextRestart(credential.username, credential.password));
}

Result HelperService::disablePersistentProtection() {
  try {
    clearPersistentState();
  } catch (const std::exception& error) {
    return failure(error.what());
  }
  return {true,
          "Persistent protection is disabled. This does not cancel an authenticated restart that macOS has "
          "already "
          "armed."};
}

}  // namespace harborkeeper
