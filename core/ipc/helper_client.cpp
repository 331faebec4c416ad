#include "core/ipc/helper_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>
#include <system_error>
#include <utility>

namespace harborkeeper::ipc {

namespace {

using Kind = HelperClientError::Kind;

// The daemon writes each reply in one go; this only bounds a broken one.
constexpr std::chrono::milliseconds kReplyFrameTimeout{30'000};

HelperClientError unreachable(const std::string& path, int error) {
  return {Kind::unreachable, "Could not reach the Harborkeeper helper at " + path + ": " +
                                 std::generic_category().message(error) + "."};
}

HelperClientError failure(Kind kind) {
  if (kind == Kind::badReply) return {kind, "The Harborkeeper helper sent a reply that could not be read."};
  return {kind, "The Harborkeeper helper closed the connection without replying."};
}

std::future<plist::Array> failedFuture(Kind kind) {
  std::promise<plist::Array> promise;
  promise.set_exception(std::make_exception_ptr(failure(kind)));
  return promise.get_future();
}

}  // namespace

// Leader/follower: whoever waits while nobody reads becomes the reader, files
// each reply under its id and wakes the others; once its own reply is in it
// lets one of them take over. A failure is kept as a kind, not an exception,
// so each waiter throws its own: an exception object shared between threads
// is reference counted in library code that ThreadSanitizer cannot see.
class HelperChannel final {
 public:
  explicit HelperChannel(UniqueFd socket) : stream_(std::move(socket)) {}

  // A new request's id, or nothing once the connection is closed.
  std::optional<std::int64_t> open() {
    const std::lock_guard lock(mutex_);
    if (closed_) return std::nullopt;
    const std::int64_t id = nextId_++;
    slots_.emplace(id, Slot{});
    return id;
  }

  // The request was never sent.
  void forget(std::int64_t id) noexcept {
    const std::lock_guard lock(mutex_);
    slots_.erase(id);
  }

  // Nobody will wait for the request any more; its reply is dropped.
  void abandon(std::int64_t id) noexcept {
    const std::lock_guard lock(mutex_);
    const auto found = slots_.find(id);
    if (found == slots_.end()) return;
    if (found->second.done()) {
      slots_.erase(found);
    } else {
      found->second.abandoned = true;
    }
  }

  // Waits for the reply to `id`, reading for everyone while it is this thread's turn.
  plist::Array await(std::int64_t id) {
    std::unique_lock lock(mutex_);
    for (;;) {
      const auto found = slots_.find(id);
      if (found == slots_.end()) throw failure(Kind::connectionClosed);  // awaited twice: not by a future
      if (found->second.done()) {
        Slot slot = std::move(found->second);
        slots_.erase(found);
        if (slot.failure) throw failure(*slot.failure);
        return std::move(*slot.reply);
      }
      if (reading_) {
        ++waiting_;
        changed_.wait(lock);
        --waiting_;
      } else {
        readOneFrame(lock);
      }
    }
  }

  // Sends a request's frame. While the socket is full the daemon may be held
  // up writing replies nobody reads, so the writer reads them if nobody else does.
  void write(const Bytes& payload) {
    stream_.writeFrame(payload, [this] { waitForRoom(); });
  }

  // Shuts the connection; requests still waiting fail with `kind`.
  void close(Kind kind) noexcept {
    const std::lock_guard lock(mutex_);
    closeLocked(kind);
    changed_.notify_all();
  }

 private:
  struct Slot {
    std::optional<plist::Array> reply;
    std::optional<Kind> failure;
    bool abandoned = false;
    [[nodiscard]] bool done() const noexcept { return reply || failure; }
  };

  // REQUIRES: `lock` holds mutex_ and nobody is reading. Holds it again on return.
  void readOneFrame(std::unique_lock<std::mutex>& lock) {
    reading_ = true;
    lock.unlock();
    std::optional<Reply> reply;
    Kind fault = Kind::connectionClosed;
    try {
      if (const std::optional<Bytes> payload = stream_.readFrame(kReplyFrameTimeout)) {
        reply = decodeReply(asStringView(*payload));
      }
    } catch (const ProtocolError&) {
      fault = Kind::badReply;
    } catch (const std::exception&) {
      // A socket error: the connection is as good as closed.
    }
    lock.lock();
    reading_ = false;
    if (!reply) {
      closeLocked(fault);
    } else if (!file(std::move(*reply))) {
      closeLocked(Kind::badReply);
    }
    if (waiting_ > 0) changed_.notify_all();
  }

  // Returns once the socket may take more, a reply was filed, or the reader left.
  void waitForRoom() {
    std::unique_lock lock(mutex_);
    if (closed_) throw std::system_error(EPIPE, std::generic_category(), "Could not send a frame");
    if (reading_) {
      ++waiting_;
      changed_.wait(lock);
      --waiting_;
      return;
    }
    reading_ = true;
    lock.unlock();
    pollfd entry{stream_.fd(), POLLIN | POLLOUT, 0};
    const bool readable = ::poll(&entry, 1, -1) > 0 && (entry.revents & POLLOUT) == 0;
    lock.lock();
    reading_ = false;
    if (readable) {
      readOneFrame(lock);  // the daemon is writing, or has closed
    } else if (waiting_ > 0) {
      changed_.notify_all();
    }
  }

  // False for an id nobody is waiting for: never asked, or answered already.
  bool file(Reply reply) {
    const auto found = slots_.find(reply.id);
    if (found == slots_.end() || found->second.done()) return false;
    if (found->second.abandoned) {
      slots_.erase(found);
    } else {
      found->second.reply = std::move(reply.reply);
    }
    return true;
  }

  void closeLocked(Kind kind) noexcept {
    if (closed_) return;
    closed_ = true;
    stream_.shutdown();  // wakes a reader in another thread
    for (auto slot = slots_.begin(); slot != slots_.end();) {
      if (slot->second.abandoned) {
        slot = slots_.erase(slot);
        continue;
      }
      if (!slot->second.done()) slot->second.failure = kind;
      ++slot;
    }
  }

  FrameStream stream_;
  std::mutex mutex_;
  std::condition_variable changed_;  // a reply was filed, the reader left, or the connection closed
  std::int64_t nextId_ = 1;
  bool closed_ = false;
  bool reading_ = false;
  std::size_t waiting_ = 0;
  std::map<std::int64_t, Slot> slots_;
};

namespace {

// What a deferred future runs: it waits for one reply. Dropping it unwaited
// abandons the request.
class ReplyTicket final {
 public:
  ReplyTicket(std::shared_ptr<HelperChannel> channel, std::int64_t id)
      : channel_(std::move(channel)), id_(id) {}
  ReplyTicket(ReplyTicket&& other) noexcept = default;
  ReplyTicket& operator=(ReplyTicket&&) = delete;
  ReplyTicket(const ReplyTicket&) = delete;
  ReplyTicket& operator=(const ReplyTicket&) = delete;
  ~ReplyTicket() {
    if (channel_) channel_->abandon(id_);
  }

  plist::Array operator()() { return channel_->await(id_); }

 private:
  std::shared_ptr<HelperChannel> channel_;  // null once moved from
  std::int64_t id_;
};

}  // namespace

std::unique_ptr<HelperClient> HelperClient::connect(const std::string& socketPath) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath.size() >= sizeof(address.sun_path)) throw unreachable(socketPath, ENAMETOOLONG);
  socketPath.copy(address.sun_path, socketPath.size());
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) throw unreachable(socketPath, errno);
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    throw unreachable(socketPath, errno);
  }
  return std::unique_ptr<HelperClient>(new HelperClient(std::move(socket)));
}

HelperClient::HelperClient(UniqueFd socket) : channel_(std::make_shared<HelperChannel>(std::move(socket))) {}

HelperClient::~HelperClient() { channel_->close(Kind::connectionClosed); }

std::future<plist::Array> HelperClient::send(std::string_view selector, plist::Array arguments) {
  const std::optional<std::int64_t> id = channel_->open();
  if (!id) return failedFuture(Kind::connectionClosed);
  Bytes payload;  // may hold a password
  try {
    Request request{*id, std::string(selector), std::move(arguments)};
    const WipeOnExit wipe(request.arguments);
    payload = encodeRequest(request);
    channel_->write(payload);
  } catch (const std::system_error&) {
    channel_->close(Kind::connectionClosed);  // fails this and every other request
  } catch (...) {
    // Nothing was sent: the request cannot be encoded or framed.
    secureWipe(payload);
    channel_->forget(*id);
    throw;
  }
  secureWipe(payload);
  return std::async(std::launch::deferred, ReplyTicket(channel_, *id));
}

plist::Array HelperClient::call(std::string_view selector, plist::Array arguments) {
  plist::Array reply = send(selector, std::move(arguments)).get();
  const InterfaceEntry* entry = findInterfaceEntry(selector);
  if (entry != nullptr && !replyMatches(entry->reply, reply)) throw failure(Kind::badReply);
  return reply;
}

std::string HelperClient::helperVersion() { return readTextReply(call(selectors::helperVersion)); }

std::optional<Bytes> HelperClient::fileVaultUsersData() {
  return readOptionalDataReply(call(selectors::fileVaultUsersData));
}

std::optional<Bytes> HelperClient::protectionStatusData() {
  return readOptionalDataReply(call(selectors::protectionStatusData));
}

namespace {

// Built in place: a braced list would leave an unwiped copy of the password.
plist::Array credentialArguments(std::string_view username, std::string_view password) {
  plist::Array arguments;
  arguments.reserve(3);
  arguments.emplace_back(std::string(username));
  arguments.emplace_back(std::string(password));
  return arguments;
}

}  // namespace

HelperCommandResult HelperClient::armNextRestart(std::string_view username, std::string_view password) {
  return readActionReply(call(selectors::armNextRestart, credentialArguments(username, password)));
}

HelperCommandResult HelperClient::enablePersistentProtection(std::string_view username,
                                                             std::string_view password,
                                                             Date authorizationExpiresAt) {
  plist::Array arguments = credentialArguments(username, password);
  arguments.emplace_back(authorizationExpiresAt);
  return readActionReply(call(selectors::enablePersistentProtection, std::move(arguments)));
}

HelperCommandResult HelperClient::armPersistentProtection() {
  return readActionReply(call(selectors::armPersistentProtection));
}

HelperCommandResult HelperClient::disablePersistentProtection() {
  return readActionReply(call(selectors::disablePersistentProtection));
}

HelperCommandResult HelperClient::enableAutomaticPowerRecovery() {
  return readActionReply(call(selectors::enableAutomaticPowerRecovery));
}

HelperCommandResult HelperClient::configureDockerHeartbeat(Bytes configuration) {
  plist::Array arguments{plist::Value(std::move(configuration))};
  return readActionReply(call(selectors::configureDockerHeartbeat, std::move(arguments)));
}

HelperCommandResult HelperClient::disableDockerHeartbeat() {
  return readActionReply(call(selectors::disableDockerHeartbeat));
}

std::optional<Bytes> HelperClient::dockerHeartbeatStatusData() {
  return readOptionalDataReply(call(selectors::dockerHeartbeatStatusData));
}

HelperCommandResult HelperClient::prepareForUninstall() {
  return readActionReply(call(selectors::prepareForUninstall));
}

}  // namespace harborkeeper::ipc
