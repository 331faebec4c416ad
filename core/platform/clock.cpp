#include "core/platform/clock.h"

#include <time.h>

namespace harborkeeper {

Date SystemClock::now() const noexcept { return std::chrono::system_clock::now(); }

std::chrono::nanoseconds SystemClock::uptime() const noexcept {
  timespec time{};
  // Cannot fail for a supported clock id and a valid pointer.
  ::clock_gettime(CLOCK_BOOTTIME, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

const SystemClock& SystemClock::shared() noexcept {
  static const SystemClock clock;
  return clock;
}

}  // namespace harborkeeper
