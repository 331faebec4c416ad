#include "core/ipc/frame_codec.h"

#include <string.h>

#include <algorithm>

namespace harborkeeper::ipc {

namespace {

// Keeping a drained buffer this large for an idle connection is not worth it.
constexpr std::size_t kRetainedCapacity = std::size_t{64} << 10;

ProtocolError badLength() { return {ProtocolError::Kind::badLength, "The frame length is out of range."}; }

void checkLength(std::size_t length) {
  if (length == 0 || length > maximumFrameLength) throw badLength();
}

// Requests carry passwords, so bytes the buffer lets go of are cleared first.
void wipe(std::uint8_t* data, std::size_t size) noexcept {
  if (size > 0) ::explicit_bzero(data, size);
}

// Reallocates by hand so the old block is cleared before it is freed.
void reserveWiping(Bytes& buffer, std::size_t capacity) {
  if (capacity <= buffer.capacity()) return;
  Bytes larger;
  larger.reserve(capacity);
  larger.assign(buffer.begin(), buffer.end());
  secureWipe(buffer);
  buffer.swap(larger);
}

}  // namespace

Bytes encodeFrame(const Bytes& payload) {
  checkLength(payload.size());
  const auto length = static_cast<std::uint32_t>(payload.size());
  Bytes frame;
  frame.reserve(frameHeaderLength + payload.size());
  for (int shift = 24; shift >= 0; shift -= 8) frame.push_back(static_cast<std::uint8_t>(length >> shift));
  frame.insert(frame.end(), payload.begin(), payload.end());
  return frame;
}

std::size_t decodeFrameLength(const std::uint8_t (&header)[frameHeaderLength]) {
  std::uint32_t length = 0;
  for (const std::uint8_t byte : header) length = (length << 8) | byte;
  checkLength(length);
  return length;
}

void FrameReader::append(const char* data, std::size_t size) {
  // Drop what next() has handed out, so the buffer holds at most one partial
  // frame plus the bytes of this call.
  const std::size_t kept = buffer_.size() - consumed_;
  std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(consumed_), buffer_.end(), buffer_.begin());
  wipe(buffer_.data() + kept, consumed_);
  buffer_.resize(kept);
  consumed_ = 0;
  reserveWiping(buffer_, buffer_.size() + size);  // what has arrived, never what a header claims
  buffer_.insert(buffer_.end(), data, data + size);

  // Check every header that is now complete; room for the frame still coming
  // is reserved only once its length has passed.
  std::size_t start = 0;
  while (buffer_.size() - start >= frameHeaderLength) {
    std::uint8_t header[frameHeaderLength];
    std::copy_n(buffer_.begin() + static_cast<std::ptrdiff_t>(start), frameHeaderLength, header);
    std::size_t length = 0;
    try {
      length = decodeFrameLength(header);
    } catch (const ProtocolError&) {
      secureWipe(buffer_);
      throw;
    }
    const std::size_t end = start + frameHeaderLength + length;
    if (end > buffer_.size()) return reserveWiping(buffer_, end);
    start = end;
  }
}

std::optional<Bytes> FrameReader::next() {
  const std::size_t available = buffer_.size() - consumed_;
  if (available < frameHeaderLength) return std::nullopt;
  std::uint8_t header[frameHeaderLength];
  std::copy_n(buffer_.begin() + static_cast<std::ptrdiff_t>(consumed_), frameHeaderLength, header);
  const std::size_t length = decodeFrameLength(header);  // passed in append()
  if (available - frameHeaderLength < length) return std::nullopt;
  const auto begin = buffer_.begin() + static_cast<std::ptrdiff_t>(consumed_ + frameHeaderLength);
  Bytes payload(begin, begin + static_cast<std::ptrdiff_t>(length));
  consumed_ += frameHeaderLength + length;
  if (consumed_ == buffer_.size()) {
    if (buffer_.capacity() > kRetainedCapacity) {
      secureWipe(buffer_);
      Bytes().swap(buffer_);
    } else {
      wipe(buffer_.data(), buffer_.size());
      buffer_.clear();
    }
    consumed_ = 0;
  }
  return payload;
}

bool FrameReader::hasPartialFrame() const noexcept { return buffer_.size() > consumed_; }

}  // namespace harborkeeper::ipc
