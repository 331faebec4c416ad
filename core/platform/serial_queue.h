#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <string>
#include <thread>

#include "core/platform/mutex.h"

namespace harborkeeper {

// One worker thread running submitted work items one at a time, in the order
// they were submitted. The daemon's only executor: its operation queue and
// (later) its heartbeat queue are each one of these.
//
// Thread-safe. A work item must not throw (an escaping exception is caught and
// dropped so the queue keeps running) and must not wait for the queue itself.
class SerialQueue final {
 public:
  explicit SerialQueue(std::string label);
  ~SerialQueue();  // same as shutdown()
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  [[nodiscard]] const std::string& label() const noexcept { return label_; }

  // Queues `work` and returns at once. After shutdown() it is dropped; returns
  // whether it was accepted.
  bool async(std::function<void()> work);

  // Stops accepting work, lets the item that is running finish, drops the ones
  // still waiting and joins the worker. Idempotent; must not be called from a
  // work item.
  void shutdown();

  // Blocks until every item queued before this call has run (testing and
  // orderly waits; not for use from a work item).
  void drain();

 private:
  void workerLoop();

  std::string label_;
  Mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<std::function<void()>> pending_ HK_GUARDED_BY(mutex_);
  bool running_ HK_GUARDED_BY(mutex_) = false;
  bool stopping_ HK_GUARDED_BY(mutex_) = false;
  std::thread worker_;
};

}  // namespace harborkeeper
