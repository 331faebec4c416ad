#include "core/platform/boot_time.h"

namespace harborkeeper::BootTime {

Date currentBootDate(const Clock& clock) noexcept {
  const Date now = clock.now();
  return now - std::chrono::duration_cast<Date::duration>(clock.uptime());
}

Date currentBootDate() noexcept { return currentBootDate(SystemClock::shared()); }

}  // namespace harborkeeper::BootTime
