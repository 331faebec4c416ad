#include "helper/helper_connection.h"

#include <utility>

#include "core/ipc/helper_protocol.h"

namespace harborkeeper {

HelperConnection::~HelperConnection() {
  // The listener joins before it lets go. Should that ever be missed, a
  // detached thread is better than std::terminate in a daemon.
  if (thread_.joinable()) thread_.detach();
}

void HelperConnection::sendReply(std::int64_t id, plist::Array reply) noexcept {
  try {
    stream_.writeFrame(ipc::encodeReply({id, std::move(reply)}));
  } catch (...) {
    close();
  }
}

void HelperConnection::start(std::function<void()> serve) { thread_ = std::thread(std::move(serve)); }

void HelperConnection::join() {
  if (thread_.joinable()) thread_.join();
}

}  // namespace harborkeeper
