#pragma once

#include <atomic>
#include <chrono>

#include "core/platform/clock.h"

namespace harborkeeper::testing_support {

// A clock that says what a test sets: wall time and time since boot.
class FixedClock final : public Clock {
 public:
  explicit FixedClock(Date now = {}, std::chrono::nanoseconds uptime = {}) : now_(now), uptime_(uptime) {}

  [[nodiscard]] Date now() const noexcept override { return now_.load(); }
  [[nodiscard]] std::chrono::nanoseconds uptime() const noexcept override { return uptime_.load(); }
  void set(Date now, std::chrono::nanoseconds uptime) {
    now_ = now;
    uptime_ = uptime;
  }

 private:
  std::atomic<Date> now_;
  std::atomic<std::chrono::nanoseconds> uptime_;
};

}  // namespace harborkeeper::testing_support
