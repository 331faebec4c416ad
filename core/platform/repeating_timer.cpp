#include "core/platform/repeating_timer.h"

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

namespace harborkeeper {

namespace {

using SteadyClock = std::chrono::steady_clock;

class SteadyRepeatingTimer final : public RepeatingTimer {
 public:
  SteadyRepeatingTimer(std::chrono::nanoseconds interval, std::function<void()> tick)
      : interval_(interval), tick_(std::move(tick)), start_(SteadyClock::now()), thread_([this] { run(); }) {}

  ~SteadyRepeatingTimer() override {
    {
      const std::lock_guard lock(mutex_);
      cancelled_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }

  SteadyRepeatingTimer(const SteadyRepeatingTimer&) = delete;
  SteadyRepeatingTimer& operator=(const SteadyRepeatingTimer&) = delete;

 private:
  void run() {
    std::unique_lock lock(mutex_);
    SteadyClock::time_point deadline = start_ + interval_;
    for (;;) {
      if (wake_.wait_until(lock, deadline, [this] { return cancelled_; })) return;
      if (SteadyClock::now() < deadline) continue;  // woken early by the clock's rounding
      lock.unlock();
      tick_();
      lock.lock();
      deadline = SteadyTimerFactory::nextDeadline(start_, interval_, SteadyClock::now());
    }
  }

  const std::chrono::nanoseconds interval_;
  const std::function<void()> tick_;
  const SteadyClock::time_point start_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool cancelled_ = false;
  std::thread thread_;  // last: started once everything above exists
};

}  // namespace

std::unique_ptr<RepeatingTimer> SteadyTimerFactory::start(std::chrono::nanoseconds interval,
                                                          std::function<void()> tick) {
  return std::make_unique<SteadyRepeatingTimer>(interval, std::move(tick));
}

SteadyClock::time_point SteadyTimerFactory::nextDeadline(SteadyClock::time_point start,
                                                         std::chrono::nanoseconds interval,
                                                         SteadyClock::time_point now) {
  if (now < start) return start + interval;
  const auto elapsedIntervals = (now - start) / interval;
  return start + (elapsedIntervals + 1) * interval;
}

}  // namespace harborkeeper
