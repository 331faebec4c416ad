#include "helper/helper_connection.h"

#include <utility>

#include "core/ipc/helper_protocol.h"

namespace harborkeeper {

void HelperConnection::sendReply(std::int64_t id, plist::Array reply) noexcept {
  try {
    stream_.writeFrame(ipc::encodeReply({id, std::move(reply)}));
  } catch (...) {
    close();
  }
}

}  // namespace harborkeeper
