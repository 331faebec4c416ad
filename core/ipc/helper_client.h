#pragma once

#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "core/foundation/bytes.h"
#include "core/foundation/plist.h"
#include "core/ipc/frame_stream.h"
#include "core/ipc/helper_protocol.h"
#include "core/platform/unique_fd.h"

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

class HelperChannel;  // the connection's state, shared with the futures (helper_client.cpp)

// One connection to the daemon. Requests may be sent from any thread and any
// number may be outstanding at once; each reply goes to the request with its
// id, whatever order replies come in. When the connection closes every
// outstanding and later request fails with connectionClosed; when the daemon
// sends a reply that cannot be read or answers an id nobody asked, the client
// closes and every outstanding request fails with badReply (later ones with
// connectionClosed).
//
// There is no reader thread: a thread waiting for a reply reads the connection
// itself, for every request (one waiter at a time; the others sleep until their
// reply is in or it is their turn to read). So the futures of send() are
// deferred: get() and wait() read, from any thread, while wait_for() and
// wait_until() return future_status::deferred without waiting (a request made
// after the connection closed is ready at once). A future may outlive its
// client; the client's descriptor is closed when the last of them is gone.
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
  // caller can send what the daemon must refuse. They are wiped once encoded.
  std::future<plist::Array> send(std::string_view selector, plist::Array arguments = {});

  // Sends a request of the interface and waits for its reply, checked against
  // the selector's reply type (badReply otherwise).
  plist::Array call(std::string_view selector, plist::Array arguments = {});

  std::string helperVersion();
  std::optional<Bytes> fileVaultUsersData();
  std::optional<Bytes> protectionStatusData();
  // The password goes only into the request, whose buffers are wiped once sent.
  HelperCommandResult armNextRestart(std::string_view username, std::string_view password);
  HelperCommandResult enablePersistentProtection(std::string_view username, std::string_view password,
                                                 Date authorizationExpiresAt);
  HelperCommandResult armPersistentProtection();
  HelperCommandResult disablePersistentProtection();
  HelperCommandResult enableAutomaticPowerRecovery();
  // `configuration` is a heartbeat configuration property list; it holds the
  // shared secret and is wiped once sent.
  HelperCommandResult configureDockerHeartbeat(Bytes configuration);
  HelperCommandResult disableDockerHeartbeat();
  std::optional<Bytes> dockerHeartbeatStatusData();
  HelperCommandResult prepareForUninstall();

 private:
  explicit HelperClient(UniqueFd socket);

  std::shared_ptr<HelperChannel> channel_;
};

}  // namespace harborkeeper::ipc
