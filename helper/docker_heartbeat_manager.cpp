#include "helper/docker_heartbeat_manager.h"

#include <limits.h>
#include <unistd.h>

#include <utility>

#include "core/heartbeat/docker_heartbeat_request.h"
#include "helper/curl_heartbeat_transport.h"

namespace harborkeeper {

namespace {

std::string systemHostName() {
  char name[HOST_NAME_MAX + 1] = {};
  if (::gethostname(name, sizeof name - 1) != 0) return {};
  return name;
}

void logOutcome(Logger& logger, const DockerHeartbeatOutcome& outcome) {
  switch (outcome.kind) {
    case DockerHeartbeatOutcome::Kind::transportFailed:
      logger.error("Docker heartbeat failed: " + outcome.transportError);
      return;
    case DockerHeartbeatOutcome::Kind::notHttp:
      logger.error("Docker heartbeat returned a non-HTTP response.");
      return;
    case DockerHeartbeatOutcome::Kind::httpStatus:
      if (outcome.statusCode < 200 || outcome.statusCode > 299) {
        logger.error("Docker heartbeat returned HTTP " + std::to_string(outcome.statusCode) + ".");
      }
      return;
  }
}

}  // namespace

// The configuration a running timer sends, its secret wiped when the last
// tick that could use it is gone.
struct DockerHeartbeatManager::HeldConfiguration {
  DockerHeartbeatConfiguration value;
  explicit HeldConfiguration(DockerHeartbeatConfiguration configuration) : value(std::move(configuration)) {}
  HeldConfiguration(const HeldConfiguration&) = delete;
  HeldConfiguration& operator=(const HeldConfiguration&) = delete;
  ~HeldConfiguration() { value.secureWipe(); }
};

DockerHeartbeatManagerDependencies DockerHeartbeatManagerDependencies::system(
    const std::string& stateDirectory, uid_t stateOwner) {
  return {DockerHeartbeatConfigurationStore(stateDirectory, stateOwner),
          std::make_shared<SystemClock>(),
          std::make_shared<SteadyTimerFactory>(),
          makeCurlHeartbeatTransport(),
          &systemHostName,
          {}};
}

DockerHeartbeatManager::DockerHeartbeatManager(DockerHeartbeatManagerDependencies dependencies,
                                               Logger& logger)
    : dependencies_(std::move(dependencies)), logger_(logger), queue_(std::string(queueLabel)) {}

DockerHeartbeatManager::~DockerHeartbeatManager() {
  queue_.shutdown();
  timer_.reset();  // the queue's worker is gone: this thread owns the state now
}

void DockerHeartbeatManager::start() {
  queue_.async([this] { startLocked(); });
}

void DockerHeartbeatManager::reload() {
  queue_.async([this] {
    stopLocked();
    startLocked();
  });
}

void DockerHeartbeatManager::stop() {
  queue_.async([this] { stopLocked(); });
}

void DockerHeartbeatManager::drain() { queue_.drain(); }

void DockerHeartbeatManager::startLocked() {
  std::shared_ptr<const HeldConfiguration> configuration;
  try {
    configuration = std::make_shared<const HeldConfiguration>(dependencies_.store.load());
  } catch (const DockerHeartbeatConfigurationStoreError& error) {
    stopLocked();
    if (error.kind() != DockerHeartbeatConfigurationStoreError::Kind::missingConfiguration) {
      logger_.error(std::string("Docker heartbeat is disabled: ") + error.what());
    }
    return;
  } catch (const std::exception& error) {
    stopLocked();
    logger_.error(std::string("Docker heartbeat is disabled: ") + error.what());
    return;
  }
  scheduleLocked(configuration);
  send(configuration->value);
}

// A tick that was already queued when its timer stopped finds a newer
// generation and sends nothing, as a cancelled timer's pending event would.
void DockerHeartbeatManager::scheduleLocked(const std::shared_ptr<const HeldConfiguration>& configuration) {
  const std::uint64_t generation = ++timerGeneration_;
  const auto interval = dependencies_.intervalBounds.timerInterval(configuration->value.intervalSeconds);
  timer_ = dependencies_.timers->start(interval, [this, generation, configuration] {
    queue_.async([this, generation, configuration] {
      if (generation == timerGeneration_ && timer_) send(configuration->value);
    });
  });
}

void DockerHeartbeatManager::stopLocked() {
  ++timerGeneration_;
  timer_.reset();
}

void DockerHeartbeatManager::send(const DockerHeartbeatConfiguration& configuration) {
  DockerHeartbeatHttpRequest request;
  try {
    request =
        DockerHeartbeat::heartbeatRequest(configuration, *dependencies_.clock, dependencies_.hostName());
  } catch (const std::exception& error) {
    logger_.error(std::string("Docker heartbeat request could not be built: ") + error.what());
    return;
  }
  dependencies_.transport->send(
      std::move(request),
      [&logger = logger_](const DockerHeartbeatOutcome& outcome) { logOutcome(logger, outcome); });
}

}  // namespace harborkeeper
