#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "core/platform/unique_fd.h"

namespace harborkeeper::internal {

// Feeds a tool's standard input through a non-blocking pipe, straight from the
// caller's buffer: no copy of what may be a secret is ever made. The buffer
// must outlive the feeder.
class InputFeeder final {
 public:
  InputFeeder(UniqueFd fd, std::string_view input) noexcept;
  // -1 once everything is written or the tool stopped reading.
  [[nodiscard]] int fd() const noexcept { return fd_.get(); }
  void close() noexcept { fd_.reset(); }

  // Writes as much as the pipe takes now. A write the tool refuses (it closed
  // its end) closes ours instead of raising SIGPIPE.
  void writeMore() noexcept;

 private:
  UniqueFd fd_;
  std::string_view rest_;
};

// Collects one of a tool's output streams from a non-blocking pipe. What a
// tool prints may be a secret (an unsealed credential), so no buffer that
// held it is released unwiped: growing copies into a new buffer and wipes the
// old one, and the last buffer is wiped on destruction.
class OutputStream final {
 public:
  explicit OutputStream(UniqueFd fd) noexcept : fd_(std::move(fd)) {}
  OutputStream(const OutputStream&) = delete;
  OutputStream& operator=(const OutputStream&) = delete;
  ~OutputStream();
  // -1 at end of file.
  [[nodiscard]] int fd() const noexcept { return fd_.get(); }
  [[nodiscard]] bool atEnd() const noexcept { return !fd_.isOpen(); }
  [[nodiscard]] const std::string& bytes() const noexcept { return bytes_; }

  // Reads all that is buffered now; closes at end of file.
  void readAvailable();

 private:
  // Ensures room for `extra` more bytes without a reallocation.
  void reserveWiping(std::size_t extra);

  UniqueFd fd_;
  std::string bytes_;
};

}  // namespace harborkeeper::internal
