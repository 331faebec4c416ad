#pragma once

#include "core/foundation/date_time.h"
#include "core/platform/clock.h"

namespace harborkeeper::BootTime {

// When the machine booted: now minus the time since boot. Computed afresh on
// every call, never cached.
Date currentBootDate(const Clock& clock) noexcept;
Date currentBootDate() noexcept;

}  // namespace harborkeeper::BootTime
