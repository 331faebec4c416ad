#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/platform/command_runner.h"
#include "core/platform/secure_state_file.h"
#include "helper/logger.h"

namespace harborkeeper {

// Keychain-style result codes, so every credential error keeps its
// "OSStatus N." text whatever backend produced it.
using OSStatus = std::int32_t;
namespace KeychainStatus {
inline constexpr OSStatus success = 0;
inline constexpr OSStatus ioError = -36;          // the sealed file could not be read or written safely
inline constexpr OSStatus notAvailable = -25291;  // no sealing tool, or it cannot seal or unseal now
inline constexpr OSStatus itemNotFound = -25300;  // nothing stored
inline constexpr OSStatus decodeFailed = -26275;  // the sealed file does not unseal
}  // namespace KeychainStatus

// One generic-password item. The password is wiped when the item goes.
struct CredentialItem {
  std::string service;
  std::string account;
  std::string label;
  std::string description;
  std::string accessibility;
  // The password's bytes as stored; not necessarily valid UTF-8 on the way in.
  std::string passwordData;

  CredentialItem() = default;
  CredentialItem(const CredentialItem&) = default;
  CredentialItem(CredentialItem&&) noexcept = default;
  CredentialItem& operator=(const CredentialItem&) = default;
  CredentialItem& operator=(CredentialItem&&) noexcept = default;
  ~CredentialItem();
};

// The system credential store, holding generic-password items keyed by
// service. Never throws: every outcome is a status. Callers serialise use.
class CredentialVault {
 public:
  virtual ~CredentialVault() = default;

  // Whether the store can be used at all (notAvailable otherwise).
  [[nodiscard]] virtual OSStatus resolve() noexcept = 0;
  // Removes every item of `service`; itemNotFound when there was none.
  virtual OSStatus deleteItems(std::string_view service) noexcept = 0;
  virtual OSStatus addItem(const CredentialItem& item) noexcept = 0;
  // The one item of `service` into `item`; itemNotFound when there is none.
  virtual OSStatus copyItem(std::string_view service, std::optional<CredentialItem>& item) noexcept = 0;
};

// The Linux vault: one item, as an XML property list sealed by
// `systemd-creds encrypt --name=<service>` in <stateDirectory>/PersistentCredential.cred,
// written and read under the private state file rules. The plaintext exists
// only in memory and on the tool's standard input and output. Causes behind a
// non-zero status (never the item) are logged.
class SystemdCredsVault final : public CredentialVault {
 public:
  static constexpr std::string_view fileName = "PersistentCredential.cred";

  SystemdCredsVault(std::string stateDirectory, uid_t expectedOwner, std::string systemdCredsPath,
                    std::shared_ptr<const CommandExecutor> commandRunner, Logger& logger);

  [[nodiscard]] OSStatus resolve() noexcept override;
  OSStatus deleteItems(std::string_view service) noexcept override;
  OSStatus addItem(const CredentialItem& item) noexcept override;
  OSStatus copyItem(std::string_view service, std::optional<CredentialItem>& item) noexcept override;

 private:
  SecureStateFile file_;
  std::string systemdCredsPath_;
  std::shared_ptr<const CommandExecutor> commandRunner_;
  Logger& logger_;
};

}  // namespace harborkeeper
