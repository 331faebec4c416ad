#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>

#include "core/foundation/bytes.h"
#include "core/ipc/frame_codec.h"
#include "core/platform/unique_fd.h"

namespace harborkeeper::ipc {

// Blocking frame I/O on one connected stream socket, shared by the daemon and
// its clients. One thread at a time reads; any number of threads may write
// (writes are serialised so frames never interleave).
class FrameStream final {
 public:
  explicit FrameStream(UniqueFd socket);
  FrameStream(const FrameStream&) = delete;
  FrameStream& operator=(const FrameStream&) = delete;

  // Waits as long as it takes for the first byte of a frame (an idle peer may
  // stay connected), then at most `partialFrameTimeout` for the rest of it.
  // Returns nothing when the peer closes cleanly between frames or after
  // shutdown(). Throws ProtocolError: badLength (checked before the payload is
  // allocated), truncated, stalled; and std::system_error for socket errors.
  std::optional<Bytes> readFrame(std::chrono::milliseconds partialFrameTimeout);

  // Sends one whole frame (never raises SIGPIPE). Throws ProtocolError for a
  // bad length and std::system_error when the peer is gone.
  void writeFrame(const Bytes& payload);

  // The same, except that whenever the socket is full it calls `waitForRoom`
  // instead of blocking, then tries again; what that throws passes through.
  // For a peer that may stop reading until this side reads.
  void writeFrame(const Bytes& payload, const std::function<void()>& waitForRoom);

  // Wakes a blocked reader and makes further reads return nothing and writes
  // fail. Safe from any thread, any number of times.
  void shutdown() noexcept;

  [[nodiscard]] int fd() const noexcept { return socket_.get(); }

 private:
  UniqueFd socket_;
  std::mutex writeMutex_;
  FrameReader reader_;
  std::atomic<bool> shutDown_{false};
  std::chrono::steady_clock::time_point frameStart_;  // first byte of the buffered partial frame
};

}  // namespace harborkeeper::ipc
