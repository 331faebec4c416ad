#pragma once

#include <cstdint>
#include <functional>
#include <thread>

#include "core/foundation/plist.h"
#include "core/ipc/frame_stream.h"
#include "core/platform/unique_fd.h"

namespace harborkeeper {

// One accepted client: its stream and the thread that serves it. Shared by the
// listener and every reply still owed to it, so a reply written after the
// connection ended just fails quietly.
//
// The thread is started and joined only by the listener, which keeps a
// reference until it has joined; the last reference may then drop anywhere.
class HelperConnection final {
 public:
  explicit HelperConnection(UniqueFd socket) : stream_(std::move(socket)) {}
  ~HelperConnection();
  HelperConnection(const HelperConnection&) = delete;
  HelperConnection& operator=(const HelperConnection&) = delete;

  [[nodiscard]] ipc::FrameStream& stream() noexcept { return stream_; }
  [[nodiscard]] int fd() const noexcept { return stream_.fd(); }

  // Writes {id, reply}. Any failure (peer gone, reply not encodable) ends the
  // connection instead of being reported. Safe from any thread.
  void sendReply(std::int64_t id, plist::Array reply) noexcept;

  // Ends the connection for the peer at once (it reads end of file) and wakes
  // the serving thread. Safe from any thread, any number of times.
  void close() noexcept { stream_.shutdown(); }

  // Throws std::system_error when no thread can be started.
  void start(std::function<void()> serve);
  void join();

 private:
  ipc::FrameStream stream_;
  std::thread thread_;
};

}  // namespace harborkeeper
