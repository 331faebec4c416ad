#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "core/platform/mutex.h"
#include "core/platform/unique_fd.h"
#include "helper/helper_service.h"
#include "helper/logger.h"
#include "helper/peer_check.h"

namespace harborkeeper {

struct ListenerLimits {
  std::size_t maximumConnections = 64;
  std::chrono::milliseconds partialFrameTimeout{10'000};
  // A reply write that makes no progress this long (SO_SNDTIMEO: the client
  // does not read its replies) ends that connection, so such a client cannot
  // hold up the operation queue or a connection thread.
  std::chrono::milliseconds replyWriteTimeout{10'000};
  // How long a connection thread whose client has left waits for the next
  // accepted connection before it ends.
  std::chrono::milliseconds idleThreadLifetime{1'000};
};

class HelperConnection;

// Accepts connections on a listening Unix socket and serves each on a thread
// of its own: the peer check first, before any byte is read, then frames
// until the peer leaves or sends something malformed (that connection alone
// closes, without a reply, and one line without payload is logged). Replies of
// queued requests are written from the operation queue, so they may overtake
// earlier ones; a reply the client does not take within replyWriteTimeout
// closes its connection. A thread whose connection has ended serves the next
// one accepted within idleThreadLifetime, then ends, so after a burst the
// threads and descriptors come back to what they were. Nothing polls: an idle
// daemon sleeps in accept and read.
class HelperListener final {
 public:
  HelperListener(UniqueFd listeningSocket, HelperService& service, const PeerVerifier& verifier,
                 Logger& logger, ListenerLimits limits = {});
  ~HelperListener();  // stop()
  HelperListener(const HelperListener&) = delete;
  HelperListener& operator=(const HelperListener&) = delete;

  // Starts the accept thread and returns.
  void resume();
  // Stops accepting, closes every connection and joins every thread.
  // Idempotent; safe from any thread but a connection's own.
  void stop();

  [[nodiscard]] std::size_t openConnections() const;

 private:
  using Worker = std::list<std::thread>::iterator;

  void acceptLoop();
  void admit(UniqueFd socket);
  void startWorker(const std::shared_ptr<HelperConnection>& connection, MutexLock& lock) HK_REQUIRES(mutex_);
  void work(Worker self, std::shared_ptr<HelperConnection> connection);
  std::shared_ptr<HelperConnection> nextConnection();
  void serve(const std::shared_ptr<HelperConnection>& connection);
  void finished(const std::shared_ptr<HelperConnection>& connection);
  void retire(Worker self);
  void reapRetired();
  void wake() noexcept;

  UniqueFd listeningSocket_;
  UniqueFd wakeup_;  // eventfd that ends the accept loop
  HelperService& service_;
  const PeerVerifier& verifier_;
  Logger& logger_;
  ListenerLimits limits_;
  std::thread acceptThread_ HK_GUARDED_BY(stopMutex_);
  mutable Mutex mutex_;
  std::condition_variable allClosed_;  // no connection and no connection thread left
  std::set<std::shared_ptr<HelperConnection>> connections_ HK_GUARDED_BY(mutex_);
  // Accepted connections promised to idle threads. idleWorkers_ counts idle
  // threads minus these, so a connection is handed off only when a thread is
  // sure to take it.
  std::deque<std::shared_ptr<HelperConnection>> handoff_ HK_GUARDED_BY(mutex_);
  std::size_t idleWorkers_ HK_GUARDED_BY(mutex_) = 0;
  std::condition_variable handedOff_;
  std::list<std::thread> workers_ HK_GUARDED_BY(mutex_);
  // Threads that have ended but are not joined yet; the accept thread joins
  // them as soon as it is woken, so none pile up.
  std::vector<std::thread> retired_ HK_GUARDED_BY(mutex_);
  Mutex stopMutex_;  // serialises stop() and resume()
  std::atomic<bool> stopping_{false};
};

}  // namespace harborkeeper
