#include "core/platform/serial_queue.h"

#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace harborkeeper {
namespace {

// Items from many threads, one of which throws, run one at a time in the order
// each thread submitted them. Shutdown lets the running item finish and drops
// the waiting ones.
TEST(SerialQueueTest, RunsItemsOneAtATimeInOrderUntilShutdown) {
  SerialQueue queue("test");
  std::vector<int> seen;  // touched by the items alone, which must not overlap
  std::vector<std::thread> submitters;
  submitters.reserve(4);
  for (int t = 0; t < 4; ++t) {
    submitters.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        queue.async([&, value = t * 1000 + i] {
          seen.push_back(value);
          if (value == 1025) throw std::runtime_error("boom");
        });
      }
    });
  }
  for (auto& thread : submitters) thread.join();
  queue.drain();
  ASSERT_EQ(seen.size(), 200u);
  std::vector<int> last(4, -1);
  for (const int value : seen) EXPECT_GT(value % 1000, std::exchange(last[value / 1000], value % 1000));

  std::promise<void> started;
  std::promise<void> release;
  queue.async([&, gate = release.get_future().share()] { started.set_value(), gate.wait(), seen.clear(); });
  queue.async([&] { seen.push_back(-1); });
  started.get_future().wait();
  std::thread releaser(
      [&] { std::this_thread::sleep_for(std::chrono::milliseconds(50)), release.set_value(); });
  queue.shutdown();
  releaser.join();
  EXPECT_EQ(seen, std::vector<int>{});
  EXPECT_FALSE(queue.async([] {}));
}

}  // namespace
}  // namespace harborkeeper
