#include "core/ipc/frame_stream.h"

#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <system_error>
#include <utility>

#include "core/platform/internal/retry.h"

namespace harborkeeper::ipc {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Large enough that a burst of pipelined requests is served by one recv.
constexpr std::size_t kChunkSize = std::size_t{64} << 10;

std::system_error socketError(int error, const char* what) { return {error, std::generic_category(), what}; }

// Waits until the socket is readable (or closed), at most `remaining`. Bytes
// already waiting count even when the time is up.
void waitReadable(int fd, milliseconds remaining) {
  const auto deadline = Clock::now() + std::min(remaining, milliseconds(std::numeric_limits<int>::max()));
  for (;;) {
    const auto left =
        std::max(std::chrono::ceil<milliseconds>(deadline - Clock::now()), milliseconds::zero());
    pollfd entry{fd, POLLIN, 0};
    const int ready = ::poll(&entry, 1, static_cast<int>(left.count()));
    if (ready > 0) return;
    if (ready == 0 && left == milliseconds::zero()) {
      throw ProtocolError(ProtocolError::Kind::stalled, "A frame did not complete in time.");
    }
    if (ready < 0 && errno != EINTR) throw socketError(errno, "Could not wait for a frame");
  }
}

}  // namespace

FrameStream::FrameStream(UniqueFd socket) : socket_(std::move(socket)) {}

std::optional<Bytes> FrameStream::readFrame(milliseconds partialFrameTimeout) {
  std::array<char, kChunkSize> chunk;  // left uninitialised: recv fills what is used
  for (;;) {
    if (shutDown_) return std::nullopt;
    if (auto payload = reader_.next()) return payload;
    const bool partial = reader_.hasPartialFrame();
    if (partial) {
      const auto elapsed = std::chrono::duration_cast<milliseconds>(Clock::now() - frameStart_);
      waitReadable(socket_.get(), partialFrameTimeout - elapsed);
    }
    const ssize_t count =
        internal::retryOnInterrupt([&] { return ::recv(socket_.get(), chunk.data(), chunk.size(), 0); });
    if (count < 0 && !shutDown_) throw socketError(errno, "Could not read a frame");
    if (count <= 0) {
      if (partial && !shutDown_) {
        throw ProtocolError(ProtocolError::Kind::truncated,
                            "The connection closed in the middle of a frame.");
      }
      return std::nullopt;
    }
    const auto received = Clock::now();
    try {
      reader_.append(chunk.data(), static_cast<std::size_t>(count));
    } catch (const ProtocolError&) {
      ::explicit_bzero(chunk.data(), static_cast<std::size_t>(count));
      throw;
    }
    ::explicit_bzero(chunk.data(), static_cast<std::size_t>(count));
    // Whatever follows a frame completed by these bytes started arriving now.
    std::optional<Bytes> payload = reader_.next();
    if (!partial || payload) frameStart_ = received;
    if (payload) return payload;
  }
}

void FrameStream::writeFrame(const Bytes& payload) { writeFrame(payload, nullptr); }

void FrameStream::writeFrame(const Bytes& payload, const std::function<void()>& waitForRoom) {
  Bytes frame = encodeFrame(payload);
  const int flags = MSG_NOSIGNAL | (waitForRoom ? MSG_DONTWAIT : 0);
  int error = 0;
  try {
    const std::lock_guard lock(writeMutex_);
    for (std::size_t sent = 0; sent < frame.size();) {
      const ssize_t count = internal::retryOnInterrupt(
          [&] { return ::send(socket_.get(), frame.data() + sent, frame.size() - sent, flags); });
      if (count >= 0) {
        sent += static_cast<std::size_t>(count);
      } else if (waitForRoom && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        waitForRoom();
      } else {
        error = errno;
        break;
      }
    }
  } catch (...) {
    secureWipe(frame);
    throw;
  }
  secureWipe(frame);
  if (error != 0) throw socketError(error, "Could not send a frame");
}

void FrameStream::shutdown() noexcept {
  shutDown_ = true;
  (void)::shutdown(socket_.get(), SHUT_RDWR);  // fails only when the peer is gone already
}

}  // namespace harborkeeper::ipc
