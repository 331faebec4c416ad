#include "helper/helper_listener.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "core/ipc/helper_protocol.h"
#include "helper/helper_connection.h"

namespace harborkeeper {

namespace {

using std::chrono::milliseconds;

// While descriptors are short the pending connection keeps the socket
// readable, so the accept thread pauses this long instead of spinning.
constexpr int shortagePauseMilliseconds = 100;

std::system_error systemError(const char* what) { return {errno, std::generic_category(), what}; }

UniqueFd makeEventFd() {
  UniqueFd fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!fd) throw systemError("Could not create the listener's wake-up descriptor");
  return fd;
}

// A client that leaves between poll() and accept() must not block the accept thread.
void makeNonBlocking(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
    throw systemError("Could not configure the listening socket");
  }
}

bool isTransient(int error) {
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR || error == ECONNABORTED ||
         error == EPROTO;
}

bool isResourceShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

std::string errorText(int error) { return std::error_code(error, std::generic_category()).message(); }

// Without a limit a client that never reads would block a reply's writer
// (possibly the operation queue) for ever once the socket buffer is full.
void limitWriteTime(int fd, milliseconds limit) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit);
  const timeval value{static_cast<time_t>(seconds.count()),
                      static_cast<suseconds_t>(std::chrono::microseconds(limit - seconds).count())};
  if (::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &value, sizeof value) != 0) {
    throw systemError("Could not limit the connection's write time");
  }
}

void serveRequests(const std::shared_ptr<HelperConnection>& connection, HelperService& service,
                   milliseconds partialFrameTimeout) {
  while (std::optional<Bytes> payload = connection->stream().readFrame(partialFrameTimeout)) {
    ipc::Request request;
    {
      const WipeOnExit wipe(*payload);  // it may carry a password
      request = ipc::decodeRequest(asStringView(*payload));
    }
    const std::int64_t id = request.id;
    service.handle(std::move(request),
                   [connection, id](plist::Array reply) { connection->sendReply(id, std::move(reply)); });
  }
}

}  // namespace

HelperListener::HelperListener(UniqueFd listeningSocket, HelperService& service, const PeerVerifier& verifier,
                               Logger& logger, ListenerLimits limits)
    : listeningSocket_(std::move(listeningSocket)),
      wakeup_(makeEventFd()),
      service_(service),
      verifier_(verifier),
      logger_(logger),
      limits_(limits) {
  makeNonBlocking(listeningSocket_.get());
}

HelperListener::~HelperListener() { stop(); }

void HelperListener::resume() {
  const MutexLock stopLock(stopMutex_);
  if (stopping_ || acceptThread_.joinable()) return;
  acceptThread_ = std::thread([this] { acceptLoop(); });
}

void HelperListener::stop() {
  const MutexLock stopLock(stopMutex_);
  stopping_ = true;
  wake();
  if (acceptThread_.joinable()) acceptThread_.join();
  MutexLock lock(mutex_);
  for (const auto& connection : connections_) connection->close();
  // Connections promised to idle threads are dropped here; those threads end.
  for (const auto& connection : handoff_) connections_.erase(connection);
  idleWorkers_ += handoff_.size();
  handoff_.clear();
  handedOff_.notify_all();
  while (!connections_.empty() || !workers_.empty()) lock.wait(allClosed_);
  lock.unlock();
  reapRetired();
}

std::size_t HelperListener::openConnections() const {
  const MutexLock lock(mutex_);
  return connections_.size();
}

void HelperListener::acceptLoop() {
  bool shortage = false;
  for (;;) {
    pollfd fds[] = {{wakeup_.get(), POLLIN, 0}, {listeningSocket_.get(), POLLIN, 0}};
    if (::poll(fds, shortage ? 1 : 2, shortage ? shortagePauseMilliseconds : -1) < 0 && errno != EINTR) {
      logger_.error("Stopped accepting connections: " + errorText(errno));
      return;
    }
    if (fds[0].revents != 0) {
      std::uint64_t count = 0;
      (void)!::read(wakeup_.get(), &count, sizeof count);
      reapRetired();
    }
    if (stopping_) return;
    const int fd = ::accept4(listeningSocket_.get(), nullptr, nullptr, SOCK_CLOEXEC);
    const int error = fd < 0 ? errno : 0;
    if (fd >= 0) {
      admit(UniqueFd(fd));
    } else if (isResourceShortage(error)) {
      if (!shortage) logger_.error("Could not accept a connection: " + errorText(error));
    } else if (!isTransient(error)) {
      logger_.error("Stopped accepting connections: " + errorText(error));
      return;
    }
    shortage = isResourceShortage(error);
  }
}

void HelperListener::admit(UniqueFd socket) {
  try {
    limitWriteTime(socket.get(), limits_.replyWriteTimeout);
  } catch (const std::system_error& error) {
    logger_.error(std::string("Could not serve a connection: ") + error.what());
    return;
  }
  MutexLock lock(mutex_);
  const std::size_t open = connections_.size();
  if (open >= limits_.maximumConnections) {
    lock.unlock();
    logger_.error("Refused a connection: " + std::to_string(open) + " connections are open already.");
    return;
  }
  auto connection = std::make_shared<HelperConnection>(std::move(socket));
  connections_.insert(connection);
  if (idleWorkers_ == 0) return startWorker(connection, lock);
  --idleWorkers_;
  handoff_.push_back(std::move(connection));
  lock.unlock();
  handedOff_.notify_one();
}

// `lock` holds mutex_, so the new thread cannot retire before its handle is
// stored.
void HelperListener::startWorker(const std::shared_ptr<HelperConnection>& connection, MutexLock& lock) {
  const auto self = workers_.emplace(workers_.end());
  try {
    *self = std::thread(&HelperListener::work, this, self, connection);
  } catch (const std::system_error& error) {
    workers_.erase(self);
    connections_.erase(connection);
    if (connections_.empty() && workers_.empty()) allClosed_.notify_all();
    lock.unlock();
    logger_.error(std::string("Could not serve a connection: ") + error.what());
  }
}

void HelperListener::work(Worker self, std::shared_ptr<HelperConnection> connection) {
  while (connection) {
    serve(connection);
    connection = nextConnection();
  }
  retire(self);
}

// Blocks (no polling) until a connection is handed over, the lifetime is up or the listener stops.
std::shared_ptr<HelperConnection> HelperListener::nextConnection() {
  MutexLock lock(mutex_);
  ++idleWorkers_;
  const auto deadline = std::chrono::steady_clock::now() + limits_.idleThreadLifetime;
  while (!stopping_ && handoff_.empty()) {
    if (!lock.waitUntil(handedOff_, deadline)) break;
  }
  if (handoff_.empty()) {
    --idleWorkers_;
    return nullptr;
  }
  std::shared_ptr<HelperConnection> connection = std::move(handoff_.front());
  handoff_.pop_front();
  return connection;
}

// The peer check comes before any byte is read: a refused peer's request is
// never even parsed.
void HelperListener::serve(const std::shared_ptr<HelperConnection>& connection) {
  try {
    verifier_.verify(connection->fd());
  } catch (const std::exception& error) {
    logger_.error(std::string("Refused a client: ") + error.what());
    connection->close();
    finished(connection);
    return;
  }
  try {
    serveRequests(connection, service_, limits_.partialFrameTimeout);
  } catch (const std::system_error& error) {
    // A peer that leaves with replies unread resets the connection: no fault of ours or its.
    const bool reset = error.code() == std::errc::connection_reset;
    logger_.log(reset ? LogLevel::debug : LogLevel::error,
                std::string("Closed a connection: ") + error.what());
    connection->close();
  } catch (const std::exception& error) {
    // Protocol errors name the fault, never the peer's bytes.
    logger_.error(std::string("Closed a connection: ") + error.what());
    connection->close();
  } catch (...) {
    logger_.error("Closed a connection: unexpected error.");
    connection->close();
  }
  finished(connection);
}

void HelperListener::finished(const std::shared_ptr<HelperConnection>& connection) {
  const MutexLock lock(mutex_);
  connections_.erase(connection);
}

void HelperListener::retire(Worker self) {
  {
    const MutexLock lock(mutex_);
    retired_.push_back(std::move(*self));
    workers_.erase(self);
    if (connections_.empty() && workers_.empty()) allClosed_.notify_all();
  }
  wake();
}

void HelperListener::reapRetired() {
  std::vector<std::thread> done;
  {
    const MutexLock lock(mutex_);
    done.swap(retired_);
  }
  for (std::thread& thread : done) thread.join();
}

void HelperListener::wake() noexcept {
  const std::uint64_t one = 1;
  (void)!::write(wakeup_.get(), &one, sizeof one);
}

}  // namespace harborkeeper
