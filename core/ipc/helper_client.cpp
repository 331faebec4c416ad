#include "core/ipc/helper_client.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
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

HelperClient::HelperClient(UniqueFd socket) : stream_(std::move(socket)) {
  reader_ = std::thread([this] { readLoop(); });
}

HelperClient::~HelperClient() {
  stream_.shutdown();
  if (reader_.joinable()) reader_.join();
}

std::future<plist::Array> HelperClient::send(std::string_view selector, plist::Array arguments) {
  std::promise<plist::Array> promise;
  std::future<plist::Array> future = promise.get_future();
  std::int64_t id = 0;
  {
    const std::lock_guard lock(mutex_);
    if (closed_) {
      promise.set_exception(std::make_exception_ptr(failure(Kind::connectionClosed)));
      return future;
    }
    id = nextId_++;
    outstanding_.emplace(id, std::move(promise));
  }
  Bytes payload;  // may hold a password
  try {
    payload = encodeRequest({id, std::string(selector), std::move(arguments)});
    stream_.writeFrame(payload);
  } catch (const std::system_error&) {
    stream_.shutdown();  // the reader then fails this and every other request
  } catch (...) {
    // Nothing was sent: the request cannot be encoded or framed.
    secureWipe(payload);
    const std::lock_guard lock(mutex_);
    outstanding_.erase(id);
    throw;
  }
  secureWipe(payload);
  return future;
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

// Nothing escapes this thread: every way out ends in failOutstanding().
void HelperClient::readLoop() {
  Kind outcome = Kind::connectionClosed;
  try {
    while (std::optional<Bytes> payload = stream_.readFrame(kReplyFrameTimeout)) {
      Reply reply = decodeReply(asStringView(*payload));
      const std::lock_guard lock(mutex_);
      const auto found = outstanding_.find(reply.id);
      if (found == outstanding_.end()) throw ProtocolError(ProtocolError::Kind::badShape, "Unknown id.");
      found->second.set_value(std::move(reply.reply));
      outstanding_.erase(found);
    }
  } catch (const ProtocolError&) {
    outcome = Kind::badReply;
  } catch (const std::exception&) {
    // A socket error: the connection is as good as closed.
  }
  stream_.shutdown();
  failOutstanding(outcome);
}

void HelperClient::failOutstanding(Kind kind) {
  std::map<std::int64_t, std::promise<plist::Array>> failing;
  {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    closeError_ = std::make_exception_ptr(failure(kind));
    failing.swap(outstanding_);
  }
  // The client keeps its own reference to the error, so it is not freed on
  // this thread while a waiter may still be reading it: the reference counts
  // of exceptions live in uninstrumented library code, out of
  // ThreadSanitizer's sight.
  for (auto& [id, promise] : failing) promise.set_exception(closeError_);
}

}  // namespace harborkeeper::ipc
