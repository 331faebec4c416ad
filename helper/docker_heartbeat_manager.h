#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "core/heartbeat/docker_heartbeat_configuration.h"
#include "core/platform/clock.h"
#include "core/platform/repeating_timer.h"
#include "core/platform/serial_queue.h"
#include "helper/docker_heartbeat_configuration_store.h"
#include "helper/docker_heartbeat_transport.h"
#include "helper/logger.h"

namespace harborkeeper {

struct DockerHeartbeatManagerDependencies {
  DockerHeartbeatConfigurationStore store;
  std::shared_ptr<const Clock> clock;
  std::shared_ptr<RepeatingTimerFactory> timers;
  std::shared_ptr<DockerHeartbeatTransport> transport;
  std::function<std::string()> hostName;
  DockerHeartbeatIntervalBounds intervalBounds;

  // The daemon's own: the store in `stateDirectory`, the system clock, steady
  // timers, libcurl and gethostname().
  static DockerHeartbeatManagerDependencies system(const std::string& stateDirectory, uid_t stateOwner);
};

// Sends the signed heartbeat on a repeating timer for as long as a valid
// configuration is stored. Every state change and every tick runs on its own
// serial queue; the public operations only enqueue, so a slow store or
// endpoint never holds up the caller. Beats are sent through the transport
// and their results only logged: the next tick is the retry.
//
// Thread-safe. At most one timer exists at any time.
class DockerHeartbeatManager final {
 public:
  static constexpr std::string_view queueLabel = "com.lumaq.Harborkeeper.Helper.docker-heartbeat";

  DockerHeartbeatManager(DockerHeartbeatManagerDependencies dependencies, Logger& logger);
  ~DockerHeartbeatManager();  // drops queued changes, cancels the timer
  DockerHeartbeatManager(const DockerHeartbeatManager&) = delete;
  DockerHeartbeatManager& operator=(const DockerHeartbeatManager&) = delete;

  // Loads the configuration; if it is valid, sends a beat at once and then
  // every interval. A missing configuration stops silently, any other load
  // failure stops with a log line.
  void start();
  // Stop, then start: picks up a new configuration.
  void reload();
  void stop();

  // Blocks until every change queued before the call has run (tests and
  // orderly waits; not from a tick or a transport completion).
  void drain();

 private:
  struct HeldConfiguration;

  void startLocked();
  void stopLocked();
  void scheduleLocked(const std::shared_ptr<const HeldConfiguration>& configuration);
  void send(const DockerHeartbeatConfiguration& configuration);

  DockerHeartbeatManagerDependencies dependencies_;
  Logger& logger_;
  // Touched only on queue_.
  std::unique_ptr<RepeatingTimer> timer_;
  std::uint64_t timerGeneration_ = 0;
  SerialQueue queue_;  // last: its worker may run as soon as it exists
};

}  // namespace harborkeeper
