#pragma once

// Stand-ins for the heartbeat manager's timers and transport. Test code only.

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/platform/clock.h"
#include "core/platform/fixed_clock.h"
#include "core/platform/repeating_timer.h"
#include "helper/docker_heartbeat_manager.h"
#include "helper/docker_heartbeat_transport.h"

namespace harborkeeper::testing_support {

// Timers that tick only when the test says so.
class ManualTimerFactory final : public RepeatingTimerFactory {
 public:
  struct Slot {
    std::chrono::nanoseconds interval;
    std::function<void()> tick;
    bool alive = true;
  };

  std::unique_ptr<RepeatingTimer> start(std::chrono::nanoseconds interval,
                                        std::function<void()> tick) override {
    const std::lock_guard lock(mutex_);
    slots_.push_back(std::make_shared<Slot>(Slot{interval, std::move(tick)}));
    return std::make_unique<Handle>(slots_.back(), mutex_);
  }

  // Ticks every live timer once.
  void fire() {
    std::vector<std::function<void()>> ticks;
    {
      const std::lock_guard lock(mutex_);
      for (const auto& slot : slots_) {
        if (slot->alive) ticks.push_back(slot->tick);
      }
    }
    for (const auto& tick : ticks) tick();
  }

  [[nodiscard]] int liveCount() const {
    const std::lock_guard lock(mutex_);
    int count = 0;
    for (const auto& slot : slots_) count += slot->alive ? 1 : 0;
    return count;
  }
  // The interval of the most recent timer.
  [[nodiscard]] std::chrono::nanoseconds lastInterval() const {
    const std::lock_guard lock(mutex_);
    return slots_.empty() ? std::chrono::nanoseconds{} : slots_.back()->interval;
  }

 private:
  class Handle final : public RepeatingTimer {
   public:
    Handle(std::shared_ptr<Slot> slot, std::mutex& mutex) : slot_(std::move(slot)), mutex_(mutex) {}
    ~Handle() override {
      const std::lock_guard lock(mutex_);
      slot_->alive = false;
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

   private:
    std::shared_ptr<Slot> slot_;
    std::mutex& mutex_;
  };

  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<Slot>> slots_;
};

// Records every request and answers each at once with `outcome`.
class RecordingHeartbeatTransport final : public DockerHeartbeatTransport {
 public:
  void send(DockerHeartbeatHttpRequest request, Completion completion) override {
    DockerHeartbeatOutcome answer;
    {
      const std::lock_guard lock(mutex_);
      requests_.push_back(std::move(request));
      answer = outcome;
    }
    completion(answer);
  }

  [[nodiscard]] std::vector<DockerHeartbeatHttpRequest> requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
  }

  DockerHeartbeatOutcome outcome{DockerHeartbeatOutcome::Kind::httpStatus, {}, 204};

 private:
  mutable std::mutex mutex_;
  std::vector<DockerHeartbeatHttpRequest> requests_;
};

struct FakeHeartbeat {
  std::shared_ptr<ManualTimerFactory> timers = std::make_shared<ManualTimerFactory>();
  std::shared_ptr<RecordingHeartbeatTransport> transport = std::make_shared<RecordingHeartbeatTransport>();
  std::shared_ptr<FixedClock> clock =
      std::make_shared<FixedClock>(Date(std::chrono::seconds(1'800'000'000)), std::chrono::hours(1));

  std::shared_ptr<DockerHeartbeatManager> manager(const std::string& stateDirectory, uid_t owner,
                                                  Logger& logger) const {
    return std::make_shared<DockerHeartbeatManager>(
        DockerHeartbeatManagerDependencies{DockerHeartbeatConfigurationStore(stateDirectory, owner),
                                           clock,
                                           timers,
                                           transport,
                                           [] { return std::string("mini.local"); },
                                           {}},
        logger);
  }
};

}  // namespace harborkeeper::testing_support
