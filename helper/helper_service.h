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
#include "core/platform/command_runner.h"
#include "core/platform/serial_queue.h"
#include "core/protection/helper_constants.h"
#include "helper/logger.h"

namespace harborkeeper {

// Where the service keeps its state and which tools it runs.
struct HelperServiceConfiguration {
  std::string stateDirectory = std::string(HelperConstants::linuxStateDirectoryPath);
  std::string fdesetupPath = "/usr/bin/fdesetup";
  std::string pmsetPath = "/usr/bin/pmset";
  std::string systemdCredsPath = "/usr/bin/systemd-creds";
  uid_t stateOwner = 0;  // tests run unprivileged with their own uid
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

  HelperService(HelperServiceConfiguration configuration,
                std::shared_ptr<const CommandExecutor> commandRunner, Logger& logger);
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
  void handle(const ipc::Request& request, ReplyHandler reply);
  // Serves `entry` as its dispatch says, without checking anything: handle()'s
  // second half, open so tests can run tables of their own. Work must not
  // throw; a queued one that does is logged and its reply never comes.
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

  [[nodiscard]] const HelperServiceConfiguration& configuration() const noexcept { return configuration_; }
  [[nodiscard]] Logger& logger() const noexcept { return logger_; }

 private:
  HelperServiceConfiguration configuration_;
  std::shared_ptr<const CommandExecutor> commandRunner_;
  Logger& logger_;
  SerialQueue operations_;
};

}  // namespace harborkeeper
