#include "core/platform/repeating_timer.h"

#include <condition_variable>
#include <thread>
#include <utility>

#include "core/platform/mutex.h"

namespace harborkeeper {

namespace {

using SteadyClock = std::chrono::steady_clock;

class SteadyRepeatingTimer final : public RepeatingTimer {
 public:
  SteadyRepeatingTimer(std::chrono::nanoseconds interval, std::function<void()> tick)
      : interval_(interval), tick_(std::move(tick)), start_(SteadyClock::now()), thread_([this] { run(); }) {}

  ~SteadyRepeatingTimer() override {
    {
      const MutexLock lock(mutex_);
      cancelled_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }

  SteadyRepeatingTimer(const SteadyRepeatingTimer&) = delete;
  SteadyRepeatingTimer& operator=(const SteadyRepeatingTimer&) = delete;

 private:
  void run() {
    MutexLock lock(mutex_);
    SteadyClock::time_point deadline = start_ + interval_;
    for (;;) {
      while (!cancelled_ && lock.waitUntil(wake_, deadline)) {
      }
      if (cancelled_) return;
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
  Mutex mutex_;
  std::condition_variable wake_;
  bool cancelled_ HK_GUARDED_BY(mutex_) = false;
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
