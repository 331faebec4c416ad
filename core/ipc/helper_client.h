#pragma once

#include <exception>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "core/foundation/bytes.h"
#include "core/foundation/plist.h"
#include "core/ipc/frame_stream.h"
#include "core/ipc/helper_protocol.h"

namespace harborkeeper::ipc {

class HelperClientError : public std::runtime_error {
 public:
  enum class Kind {
    unreachable,       // could not connect to the socket
    connectionClosed,  // the daemon closed the connection before replying
    badReply,          // a reply that does not fit the request's reply type
  };
  HelperClientError(Kind kind, const std::string& message) : std::runtime_error(message), kind_(kind) {}
  [[nodiscard]] Kind kind() const noexcept { return kind_; }

 private:
  Kind kind_;
};

// One connection to the daemon. Requests may be sent from any thread and any
// number may be outstanding at once; a reader thread hands each reply to the
// request with its id, whatever order replies come in. When the connection
// closes every outstanding and later request fails with connectionClosed;
// when the daemon sends a reply that cannot be read or answers an id nobody
// asked, the client closes and every outstanding request fails with badReply
// (later ones with connectionClosed).
class HelperClient final {
 public:
  // Connects to the Unix socket at `socketPath`. Throws HelperClientError
  // (unreachable) naming the path and the system's reason.
  static std::unique_ptr<HelperClient> connect(const std::string& socketPath);
  ~HelperClient();  // closes the connection; outstanding requests fail
  HelperClient(const HelperClient&) = delete;
  HelperClient& operator=(const HelperClient&) = delete;

  // Sends any request; the future yields the raw reply array or throws
  // HelperClientError. Arguments are not checked against the interface, so a
  // caller can send what the daemon must refuse.
  std::future<plist::Array> send(std::string_view selector, plist::Array arguments = {});

  // Sends a request of the interface and waits for its reply, checked against
  // the selector's reply type (badReply otherwise).
  plist::Array call(std::string_view selector, plist::Array arguments = {});

  std::string helperVersion();
  std::optional<Bytes> fileVaultUsersData();
  std::optional<Bytes> protectionStatusData();

 private:
  explicit HelperClient(UniqueFd socket);
  void readLoop();
  void failOutstanding(HelperClientError::Kind kind);

  FrameStream stream_;
  std::mutex mutex_;
  std::int64_t nextId_ = 1;
  bool closed_ = false;
  std::map<std::int64_t, std::promise<plist::Array>> outstanding_;
  std::exception_ptr closeError_;  // what the outstanding requests failed with
  std::thread reader_;
};

}  // namespace harborkeeper::ipc
