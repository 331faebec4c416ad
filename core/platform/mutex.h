#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// Clang's thread-safety analysis: shared state names the mutex that guards it
// and the compiler checks every access (-Wthread-safety). Other compilers see
// plain declarations.
#if defined(__clang__)
#define HK_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define HK_THREAD_ANNOTATION(x)
#endif

#define HK_CAPABILITY(name) HK_THREAD_ANNOTATION(capability(name))
#define HK_SCOPED_CAPABILITY HK_THREAD_ANNOTATION(scoped_lockable)
#define HK_GUARDED_BY(mutex) HK_THREAD_ANNOTATION(guarded_by(mutex))
#define HK_REQUIRES(...) HK_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define HK_EXCLUDES(...) HK_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define HK_ACQUIRE(...) HK_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define HK_RELEASE(...) HK_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

namespace harborkeeper {

class MutexLock;

// A std::mutex the analysis knows about.
class HK_CAPABILITY("mutex") Mutex final {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() HK_ACQUIRE() { mutex_.lock(); }
  void unlock() HK_RELEASE() { mutex_.unlock(); }

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

// Holds a Mutex for its scope. Waiting on a condition variable releases and
// retakes it; callers loop on their condition in their own body, where the
// analysis can see that the mutex is held while it is read:
//   while (!ready_) lock.wait(changed_);
class HK_SCOPED_CAPABILITY MutexLock final {
 public:
  explicit MutexLock(Mutex& mutex) HK_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  ~MutexLock() HK_RELEASE() = default;
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  // For work done without the mutex in the middle of a locked scope.
  void unlock() HK_RELEASE() { lock_.unlock(); }
  void lock() HK_ACQUIRE() { lock_.lock(); }

  void wait(std::condition_variable& condition) { condition.wait(lock_); }
  // False when `deadline` passed first.
  template <class Clock, class Duration>
  bool waitUntil(std::condition_variable& condition, std::chrono::time_point<Clock, Duration> deadline) {
    return condition.wait_until(lock_, deadline) == std::cv_status::no_timeout;
  }

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace harborkeeper
