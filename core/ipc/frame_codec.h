#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "core/foundation/bytes.h"

// The daemon's wire framing: a 4-byte big-endian length (1 B to 1 MiB)
// followed by that many bytes of binary property list.
namespace harborkeeper::ipc {

inline constexpr std::size_t frameHeaderLength = 4;
inline constexpr std::size_t maximumFrameLength = std::size_t{1} << 20;

// Why a peer's input was refused. what() is a short fixed sentence that never
// carries the input, so it may be logged.
class ProtocolError : public std::runtime_error {
 public:
  enum class Kind {
    badLength,        // length 0 or over 1 MiB
    truncated,        // the peer closed in the middle of a frame
    stalled,          // a started frame did not complete in time
    notPropertyList,  // the payload is not a binary property list
    badShape,         // not the request/reply dictionary
    unknownSelector,
    badArguments,  // wrong count or types for the selector
  };
  ProtocolError(Kind kind, const std::string& message) : std::runtime_error(message), kind_(kind) {}
  [[nodiscard]] Kind kind() const noexcept { return kind_; }

 private:
  Kind kind_;
};

// Header + payload. Throws ProtocolError(badLength) for an empty or oversized payload.
Bytes encodeFrame(const Bytes& payload);

// The payload length a header announces, checked against the limits before
// anything is allocated. Throws ProtocolError(badLength).
std::size_t decodeFrameLength(const std::uint8_t (&header)[frameHeaderLength]);

// Incremental frame splitter for bytes read from a stream in arbitrary pieces.
class FrameReader final {
 public:
  // Adds bytes as they arrive. Throws ProtocolError(badLength) as soon as a
  // header announces a bad length; the reader is then unusable.
  void append(const char* data, std::size_t size);
  // The next complete payload, if one has arrived.
  std::optional<Bytes> next();
  // Whether bytes of an incomplete frame are buffered.
  [[nodiscard]] bool hasPartialFrame() const noexcept;

 private:
  Bytes buffer_;
  std::size_t consumed_ = 0;
};

}  // namespace harborkeeper::ipc
