#include "core/platform/serial_queue.h"

#include <pthread.h>

#include <utility>

namespace harborkeeper {

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)) {
  worker_ = std::thread([this] { workerLoop(); });
  // Thread names are limited to 15 bytes; keep the distinctive tail.
  std::string name = label_.size() > 15 ? label_.substr(label_.size() - 15) : label_;
  pthread_setname_np(worker_.native_handle(), name.c_str());
}

SerialQueue::~SerialQueue() { shutdown(); }

bool SerialQueue::async(std::function<void()> work) {
  {
    const MutexLock lock(mutex_);
    if (stopping_) return false;
    pending_.push_back(std::move(work));
  }
  wake_.notify_one();
  return true;
}

void SerialQueue::shutdown() {
  {
    const MutexLock lock(mutex_);
    stopping_ = true;
    pending_.clear();
  }
  wake_.notify_all();
  idle_.notify_all();
  if (worker_.joinable() && worker_.get_id() != std::this_thread::get_id()) worker_.join();
}

void SerialQueue::drain() {
  MutexLock lock(mutex_);
  while (!stopping_ && (!pending_.empty() || running_)) lock.wait(idle_);
}

void SerialQueue::workerLoop() {
  MutexLock lock(mutex_);
  for (;;) {
    while (!stopping_ && pending_.empty()) lock.wait(wake_);
    if (stopping_) return;
    std::function<void()> work = std::move(pending_.front());
    pending_.pop_front();
    running_ = true;
    lock.unlock();
    try {
      work();
    } catch (...) {  // NOLINT(bugprone-empty-catch): a work item's failure must not stop the queue
    }
    work = nullptr;
    lock.lock();
    running_ = false;
    if (pending_.empty()) idle_.notify_all();
  }
}

}  // namespace harborkeeper
