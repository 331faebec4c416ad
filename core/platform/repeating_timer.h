#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace harborkeeper {

// A running repeating timer. Destroying it cancels it: once the destructor
// returns the tick is never called again. Must not be destroyed from its own
// tick.
class RepeatingTimer {
 public:
  virtual ~RepeatingTimer() = default;
};

// The seam for timers, so tests fire ticks themselves instead of waiting.
class RepeatingTimerFactory {
 public:
  virtual ~RepeatingTimerFactory() = default;
  // Calls `tick` at now + n x interval for n = 1, 2, ... until destroyed.
  // REQUIRES: interval > 0. `tick` runs on a thread of the timer's own and
  // should only hand work on (to a queue), so it never delays the next tick.
  virtual std::unique_ptr<RepeatingTimer> start(std::chrono::nanoseconds interval,
                                                std::function<void()> tick) = 0;
};

// Absolute deadlines on the steady clock, so lateness never accumulates:
// tick n is due at start + n x interval however late tick n-1 ran. Ticks
// missed entirely (the machine was suspended) are coalesced into one.
class SteadyTimerFactory final : public RepeatingTimerFactory {
 public:
  std::unique_ptr<RepeatingTimer> start(std::chrono::nanoseconds interval,
                                        std::function<void()> tick) override;

  // The first deadline start + n x interval later than `now` (n >= 1).
  static std::chrono::steady_clock::time_point nextDeadline(std::chrono::steady_clock::time_point start,
                                                            std::chrono::nanoseconds interval,
                                                            std::chrono::steady_clock::time_point now);
};

}  // namespace harborkeeper
