#include "core/platform/internal/tool_pipes.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "core/foundation/bytes.h"
#include "core/platform/internal/retry.h"

namespace harborkeeper::internal {
namespace {

// A write that fails with EPIPE instead of raising SIGPIPE: the signal is
// blocked on this thread for the write, and one it caused is consumed.
ssize_t writeWithoutSigpipe(int fd, const char* data, std::size_t size) noexcept {
  sigset_t pipeOnly;
  sigset_t previousMask;
  sigset_t pending;
  ::sigemptyset(&pipeOnly);
  ::sigaddset(&pipeOnly, SIGPIPE);
  ::sigpending(&pending);
  const bool alreadyPending = ::sigismember(&pending, SIGPIPE) == 1;
  ::pthread_sigmask(SIG_BLOCK, &pipeOnly, &previousMask);
  const ssize_t written = ::write(fd, data, size);
  const int savedErrno = errno;
  if (written < 0 && savedErrno == EPIPE && !alreadyPending) {
    const timespec noWait{};
    static_cast<void>(retryOnInterrupt([&] { return ::sigtimedwait(&pipeOnly, nullptr, &noWait); }));
  }
  ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  errno = savedErrno;
  return written;
}

bool wouldBlock(int error) noexcept { return error == EAGAIN || error == EWOULDBLOCK; }

}  // namespace

InputFeeder::InputFeeder(UniqueFd fd, std::string_view input) noexcept : fd_(std::move(fd)), rest_(input) {
  if (rest_.empty()) fd_.reset();
}

void InputFeeder::writeMore() noexcept {
  while (fd_.isOpen()) {
    const ssize_t written =
        retryOnInterrupt([&] { return writeWithoutSigpipe(fd_.get(), rest_.data(), rest_.size()); });
    if (written < 0 && wouldBlock(errno)) return;
    if (written < 0) return close();  // EPIPE: the tool stopped reading.
    rest_.remove_prefix(static_cast<std::size_t>(written));
    if (rest_.empty()) close();
  }
}

OutputStream::~OutputStream() { secureWipe(bytes_); }

void OutputStream::reserveWiping(std::size_t extra) {
  if (bytes_.capacity() - bytes_.size() >= extra) return;
  std::string larger;
  larger.reserve(std::max(bytes_.capacity() * 2, bytes_.size() + extra));
  larger.assign(bytes_);
  secureWipe(bytes_);
  bytes_.swap(larger);
}

void OutputStream::readAvailable() {
  constexpr std::size_t kChunk = std::size_t{64} * 1024;
  while (fd_.isOpen()) {
    reserveWiping(kChunk);
    const std::size_t used = bytes_.size();
    bytes_.resize(used + kChunk);  // within the capacity just reserved
    const ssize_t count = retryOnInterrupt([&] { return ::read(fd_.get(), bytes_.data() + used, kChunk); });
    bytes_.resize(used + (count > 0 ? static_cast<std::size_t>(count) : 0));
    if (count < 0 && wouldBlock(errno)) return;
    if (count <= 0) fd_.reset();
  }
}

}  // namespace harborkeeper::internal
