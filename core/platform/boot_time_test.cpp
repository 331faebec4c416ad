#include "core/platform/boot_time.h"

#include <chrono>

#include <gtest/gtest.h>

namespace harborkeeper {
namespace {

using namespace std::chrono_literals;

class FixedClock final : public Clock {
 public:
  FixedClock(Date now, std::chrono::nanoseconds uptime) : now_(now), uptime_(uptime) {}
  Date now() const noexcept override { return now_; }
  std::chrono::nanoseconds uptime() const noexcept override { return uptime_; }

 private:
  Date now_;
  std::chrono::nanoseconds uptime_;
};

TEST(BootTimeTest, IsNowMinusUptime) {
  const Date now = date_time::fromSecondsSince1970(1'800'000'000.25);
  struct Case {
    std::chrono::nanoseconds uptime;
    Date expected;
  };
  const Case cases[] = {
      {0ns, now},
      {90s, now - 90s},
      {3 * 24h + 1500ms, now - 3 * 24h - 1500ms},
      {1ns, now - 1ns},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(BootTime::currentBootDate(FixedClock(now, c.uptime)), c.expected) << c.uptime.count();
  }
}

TEST(BootTimeTest, SystemBootDateIsInThePastAndStable) {
  const Date first = BootTime::currentBootDate();
  const Date second = BootTime::currentBootDate(SystemClock::shared());
  EXPECT_LT(first, std::chrono::system_clock::now());
  EXPECT_LT(std::chrono::abs(second - first), 5ms);
  EXPECT_GT(SystemClock::shared().uptime(), 0ns);
}

}  // namespace
}  // namespace harborkeeper
