#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "core/foundation/bytes.h"
#include "core/foundation/plist.h"
#include "core/ipc/helper_protocol.h"
#include "core/platform/clock.h"
#include "core/platform/command_runner.h"
#include "core/platform/serial_queue.h"
#include "core/protection/auth_restart.h"
#include "core/protection/file_vault_users.h"
#include "core/protection/helper_constants.h"
#include "core/protection/protection_status.h"
#include "core/protection/protection_status_store.h"
#include "helper/credential_store.h"
#include "helper/docker_heartbeat_configuration_store.h"
#include "helper/docker_heartbeat_manager.h"
#include "helper/local_account_password_verifier.h"
#include "helper/logger.h"

namespace harborkeeper {

// Where the service keeps its state and which tools it runs.
struct HelperServiceConfiguration {
  std::string stateDirectory = std::string(HelperConstants::linuxStateDirectoryPath);
  std::string fdesetupPath = "/usr/bin/fdesetup";
  std::string pmsetPath = "/usr/bin/pmset";
  std::string systemdCredsPath = "/usr/bin/systemd-creds";
  std::string pamServiceDirectory = std::string(PamAccountDirectory::defaultServiceDirectory);
  uid_t stateOwner = 0;  // tests run unprivileged with their own uid
};

// What the service reaches the system through.
struct HelperServiceDependencies {
  std::shared_ptr<const CommandExecutor> commandRunner;
  std::shared_ptr<CredentialVault> credentialVault;
  std::shared_ptr<const AccountDirectory> accountDirectory;
  std::shared_ptr<const Clock> clock;
  std::shared_ptr<DockerHeartbeatManager> heartbeatManager;

  // The daemon's own: a 30 s command runner, the systemd-creds vault, PAM,
  // the system clock and a heartbeat manager over the state directory.
  static HelperServiceDependencies system(const HelperServiceConfiguration& configuration, Logger& logger);
};

// Why the selected user cannot be armed, and whether that proves a stored
// selection wrong (rather than that it could not be checked).
struct FileVaultUserValidationFailure {
  ipc::HelperCommandResult result;
  bool clearsPersistentState = false;
};

class HelperService;

// How one selector is served: on the connection's thread before the call
// returns, or on the one serial operation queue.
enum class Dispatch { direct, queued };
using Work = std::function<plist::Array(HelperService&, const plist::Array& arguments)>;

struct DispatchEntry {
  std::string_view selector;  // one of ipc::helperInterface()
  Dispatch dispatch;
  Work work;
};

// The one object every connection's requests meet. Owns the stores, the
// runners and the operation queue for the life of the process.
class HelperService final {
 public:
  static constexpr std::string_view operationQueueLabel = "com.lumaq.Harborkeeper.Helper.operations";

  HelperService(HelperServiceConfiguration configuration, HelperServiceDependencies dependencies,
                Logger& logger);
  ~HelperService();  // shuts the operation queue down
  HelperService(const HelperService&) = delete;
  HelperService& operator=(const HelperService&) = delete;

  // The dispatch table: one entry per selector of ipc::helperInterface().
  static std::span<const DispatchEntry> dispatchTable();

  using ReplyHandler = std::function<void(plist::Array reply)>;
  // Checks the request against the interface (throws ipc::ProtocolError:
  // unknownSelector, badArguments, and nothing runs), then serves it: `reply`
  // is called exactly once, before handle() returns for a direct selector, on
  // the operation queue for a queued one (or never, if the queue shuts down
  // before the work starts).
  void handle(ipc::Request request, ReplyHandler reply);
  // Serves `entry` as its dispatch says, without checking anything: handle()'s
  // second half, open so tests can run tables of their own. Work must not
  // throw; a queued one that does is logged and its reply never comes. The
  // arguments are wiped once the work is done (they may hold a password).
  void dispatch(const DispatchEntry& entry, plist::Array arguments, ReplyHandler reply);

  // Queues work on the operation queue (queued selectors and the launch-time
  // re-arm). False after shutdown().
  bool enqueue(std::function<void()> work);
  // Lets the running operation finish, drops the waiting ones.
  void shutdown();

  // The direct requests.
  [[nodiscard]] const std::string& helperVersion() const;
  [[nodiscard]] std::optional<Bytes> fileVaultUsersData() const;
  [[nodiscard]] std::optional<Bytes> protectionStatusData() const;

  // The queued requests of restart protection. Each records its outcome as
  // the protection status (where the rules say so) and returns the reply.
  // REQUIRES: called on the operation queue (or with no queue running).
  ipc::HelperCommandResult armNextRestart(std::string_view username, std::string_view password);
  // The date is part of the request only; the protection logic ignores it.
  ipc::HelperCommandResult enablePersistentProtection(std::string_view username, std::string_view password,
                                                      Date authorizationExpiresAt);
  ipc::HelperCommandResult armPersistentProtection();
  ipc::HelperCommandResult disablePersistentProtection();

  // The queued maintenance requests. REQUIRES: on the operation queue (or
  // with no queue running).
  // `pmset -a autorestart 1`.
  ipc::HelperCommandResult enableAutomaticPowerRecovery();
  // Decodes, validates and stores the configuration, then reloads the
  // heartbeat (only if it was stored).
  ipc::HelperCommandResult configureDockerHeartbeat(const Bytes& data);
  // Deletes the configuration, then stops the heartbeat (only if deleted).
  ipc::HelperCommandResult disableDockerHeartbeat();
  // The status as an XML property list; a configuration that cannot be
  // loaded reads as not configured. Nothing only if encoding fails.
  [[nodiscard]] std::optional<Bytes> dockerHeartbeatStatusData() const;
  // Stops the heartbeat, deletes its configuration, clears the persistent
  // state and removes the state directory if nothing else is left in it; the
  // first failure ends the sequence and is the reply.
  ipc::HelperCommandResult prepareForUninstall();

  // Started by the entry point once the listener is serving.
  [[nodiscard]] DockerHeartbeatManager& heartbeatManager() const noexcept { return *heartbeatManager_; }

  [[nodiscard]] const HelperServiceConfiguration& configuration() const noexcept { return configuration_; }
  [[nodiscard]] Logger& logger() const noexcept { return logger_; }

 private:
  // `fdesetup list`, parsed; a failure is carried inside the list.
  [[nodiscard]] FileVaultUserList listFileVaultUsers() const;
  // Fresh on every arming: the one FileVault user, and exactly the one chosen.
  [[nodiscard]] std::optional<FileVaultUserValidationFailure> validateSelectedFileVaultUser(
      std::string_view username) const;
  ipc::HelperCommandResult recordStatusOrReplyFailure(HelperProtectionMode mode,
                                                      ipc::HelperCommandResult result);
  // Removes the status, then the credential; both always run and the first
  // error is thrown afterwards.
  void clearPersistentState();
  void clearPersistentStateIgnoringErrors() noexcept;
  // A failed persistent status with `message`; a store error is ignored.
  void storeFailedPersistentStatus(const std::string& message) noexcept;
  [[nodiscard]] bool lastStatusIsPersistent() const noexcept;
  // Throws HelperStateFileSecurityError or FileSystemError.
  void removeApplicationSupportDirectoryIfEmpty() const;

  HelperServiceConfiguration configuration_;
  std::shared_ptr<const CommandExecutor> commandRunner_;
  std::shared_ptr<const Clock> clock_;
  CredentialStore credentialStore_;
  AuthRestartRunner authRestartRunner_;
  LocalAccountPasswordVerifier passwordVerifier_;
  ProtectionStatusStore protectionStatusStore_;
  DockerHeartbeatConfigurationStore heartbeatStore_;
  std::shared_ptr<DockerHeartbeatManager> heartbeatManager_;
  Logger& logger_;
  SerialQueue operations_;
};

}  // namespace harborkeeper
