#pragma once

#include <cstdint>

#include "core/foundation/plist.h"
#include "core/ipc/frame_stream.h"
#include "core/platform/unique_fd.h"

namespace harborkeeper {

// One accepted client's stream. Shared by the listener, the thread serving it
// and every reply still owed to it, so a reply written after the connection
// ended just fails quietly; the descriptor closes with the last reference.
class HelperConnection final {
 public:
  explicit HelperConnection(UniqueFd socket) : stream_(std::move(socket)) {}
  HelperConnection(const HelperConnection&) = delete;
  HelperConnection& operator=(const HelperConnection&) = delete;

  [[nodiscard]] ipc::FrameStream& stream() noexcept { return stream_; }
  [[nodiscard]] int fd() const noexcept { return stream_.fd(); }

  // Writes {id, reply}. Any failure (peer gone, a write timed out, reply not
  // encodable) ends the connection instead of being reported. Safe from any thread.
  void sendReply(std::int64_t id, plist::Array reply) noexcept;

  // Ends the connection for the peer at once (it reads end of file) and wakes
  // the serving thread. Safe from any thread, any number of times.
  void close() noexcept { stream_.shutdown(); }

 private:
  ipc::FrameStream stream_;
};

}  // namespace harborkeeper
