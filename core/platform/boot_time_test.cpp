#include "core/platform/boot_time.h"

#include <gtest/gtest.h>

namespace harborkeeper {
namespace {

using namespace std::chrono_literals;

struct FixedClock final : Clock {
  Date now() const noexcept override { return date_time::fromSecondsSince1970(1'800'000'000.25); }
  std::chrono::nanoseconds uptime() const noexcept override { return 3 * 24h + 1500ms + 1ns; }
};

// The real clock's boot date is checked against the kernel's by the heartbeat
// daemon test's receiver.
TEST(BootTimeTest, IsNowMinusTimeSinceBoot) {
  EXPECT_EQ(BootTime::currentBootDate(FixedClock()), FixedClock().now() - 3 * 24h - 1500ms - 1ns);
}

}  // namespace
}  // namespace harborkeeper
