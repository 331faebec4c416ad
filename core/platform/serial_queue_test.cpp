#include "core/platform/serial_queue.h"

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace harborkeeper {
namespace {

TEST(SerialQueueTest, RunsItemsOneAtATimeInSubmissionOrderFromManyThreads) {
  SerialQueue queue("test.order");
  std::mutex mutex;
  std::vector<int> seen;
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  std::vector<std::thread> submitters;
  for (int t = 0; t < 4; ++t) {
    submitters.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        queue.async([&, value = t * 1000 + i] {
          if (running.fetch_add(1) != 0) overlapped = true;
          {
            std::lock_guard lock(mutex);
            seen.push_back(value);
          }
          running.fetch_sub(1);
        });
      }
    });
  }
  for (auto& thread : submitters) thread.join();
  queue.drain();
  EXPECT_FALSE(overlapped);
  ASSERT_EQ(seen.size(), 200u);
  // Each submitter's items keep their relative order.
  std::vector<int> last(4, -1);
  for (int value : seen) {
    EXPECT_GT(value % 1000, last[value / 1000]);
    last[value / 1000] = value % 1000;
  }
}

TEST(SerialQueueTest, ShutdownLetsTheRunningItemFinishAndDropsTheWaitingOnes) {
  SerialQueue queue("test.shutdown");
  std::promise<void> started;
  std::promise<void> release;
  std::atomic<bool> firstFinished{false};
  std::atomic<bool> secondRan{false};
  queue.async([&, gate = release.get_future().share()] {
    started.set_value();
    gate.wait();
    firstFinished = true;
  });
  queue.async([&] { secondRan = true; });
  started.get_future().wait();
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    release.set_value();
  });
  queue.shutdown();
  releaser.join();
  EXPECT_TRUE(firstFinished);
  EXPECT_FALSE(secondRan);
  EXPECT_FALSE(queue.async([] {}));
}

TEST(SerialQueueTest, AThrowingItemDoesNotStopTheQueue) {
  SerialQueue queue("test.throw");
  std::atomic<bool> ran{false};
  queue.async([] { throw std::runtime_error("boom"); });
  queue.async([&] { ran = true; });
  queue.drain();
  EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace harborkeeper
