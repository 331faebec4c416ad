#include "core/platform/repeating_timer.h"

#include <gtest/gtest.h>

namespace harborkeeper {
namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

// That a replaced timer stops ticking is proven by heartbeat_daemon_test.

// Deadlines stay on the start + n x interval grid however late a tick ran.
TEST(RepeatingTimerTest, DeadlinesStayOnTheGrid) {
  const SteadyClock::time_point start{1000s};
  const struct {
    std::chrono::nanoseconds sinceStart;
    std::chrono::nanoseconds expected;
  } cases[] = {
      {-5s, 30s},            // a clock read before the start
      {0s, 30s},             //
      {30s, 60s},            // exactly on time
      {30s + 17ms, 60s},     // late: the next one is not pushed back
      {59999ms, 60s},        //
      {3600s + 1ns, 3630s},  // suspended for an hour: missed ticks coalesce
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.sinceStart.count());
    EXPECT_EQ(SteadyTimerFactory::nextDeadline(start, 30s, start + c.sinceStart) - start, c.expected);
  }
}

}  // namespace
}  // namespace harborkeeper
