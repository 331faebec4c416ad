#pragma once

#include <chrono>

#include "core/foundation/date_time.h"

namespace harborkeeper {

// The seam for wall-clock time and time since boot, so tests need not sleep or
// depend on when the machine booted. Implementations are thread-safe.
class Clock {
 public:
  virtual ~Clock() = default;

  [[nodiscard]] virtual Date now() const noexcept = 0;
  // Time since boot, suspended time included.
  [[nodiscard]] virtual std::chrono::nanoseconds uptime() const noexcept = 0;
};

class SystemClock final : public Clock {
 public:
  [[nodiscard]] Date now() const noexcept override;
  // CLOCK_BOOTTIME: unlike CLOCK_MONOTONIC it keeps counting across suspend,
  // so the boot date derived from it does not drift after sleep.
  [[nodiscard]] std::chrono::nanoseconds uptime() const noexcept override;

  static const SystemClock& shared() noexcept;
};

}  // namespace harborkeeper
