#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "core/platform/unique_fd.h"
#include "helper/helper_service.h"
#include "helper/logger.h"
#include "helper/peer_check.h"

namespace harborkeeper {

struct ListenerLimits {
  std::size_t maximumConnections = 64;
  std::chrono::milliseconds partialFrameTimeout{10'000};
};

class HelperConnection;

// Accepts connections on a listening Unix socket and serves each on a thread
// of its own: the peer check first, before any byte is read, then frames
// until the peer leaves or sends something malformed (that connection alone
// closes, without a reply, and one line without payload is logged). Replies of
// queued requests are written from the operation queue, so they may overtake
// earlier ones. Nothing polls: an idle daemon sleeps in accept and read.
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
  void acceptLoop();
  void admit(UniqueFd socket);
  void serve(const std::shared_ptr<HelperConnection>& connection);
  void finished(const std::shared_ptr<HelperConnection>& connection);
  void reapFinished();
  void wake() noexcept;

  UniqueFd listeningSocket_;
  UniqueFd wakeup_;  // eventfd that ends the accept loop
  HelperService& service_;
  const PeerVerifier& verifier_;
  Logger& logger_;
  ListenerLimits limits_;
  std::thread acceptThread_;
  mutable std::mutex mutex_;
  std::condition_variable allClosed_;
  std::set<std::shared_ptr<HelperConnection>> connections_;
  // Connections whose thread has ended but is not joined yet; the accept
  // thread joins them as soon as it is woken, so none pile up.
  std::vector<std::shared_ptr<HelperConnection>> finished_;
  std::mutex stopMutex_;  // serialises stop()
  std::atomic<bool> stopping_{false};
};

}  // namespace harborkeeper
