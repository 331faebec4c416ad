// Bytes from a peer, cut into frames however they arrive, then read as requests
// (and as replies, which a client reads from the daemon). Only ProtocolError may
// refuse them, and whatever is accepted must survive re-encoding unchanged.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "core/ipc/frame_codec.h"
#include "core/ipc/helper_protocol.h"

namespace {

using namespace harborkeeper;
using namespace harborkeeper::ipc;
using Kind = ProtocolError::Kind;

void require(bool holds) {
  if (!holds) std::abort();
}

// The frames of `data` fed in pieces of `chunk` bytes; whether a bad header refused
// the rest; whether a partial frame remains.
std::tuple<std::vector<Bytes>, bool, bool> split(const std::uint8_t* data, std::size_t size,
                                                 std::size_t chunk) {
  std::vector<Bytes> frames;
  FrameReader reader;
  try {
    for (std::size_t offset = 0; offset < size; offset += chunk) {
      reader.append(reinterpret_cast<const char*>(data + offset), std::min(chunk, size - offset));
      while (auto payload = reader.next()) frames.push_back(std::move(*payload));
    }
  } catch (const ProtocolError& error) {
    require(error.kind() == Kind::badLength);
    return {frames, true, false};
  }
  return {frames, false, reader.hasPartialFrame()};
}

void checkFrame(const Bytes& payload) {
  try {
    const Request request = decodeRequest(asStringView(payload));
    require(decodeRequest(asStringView(encodeRequest(request))) == request);
    require(validateRequest(request).selector == request.selector);
  } catch (const ProtocolError& error) {
    require(error.kind() == Kind::notPropertyList || error.kind() == Kind::badShape ||
            error.kind() == Kind::unknownSelector || error.kind() == Kind::badArguments);
  }
  try {
    const Reply reply = decodeReply(asStringView(payload));
    require(decodeReply(asStringView(encodeReply(reply))) == reply);
  } catch (const ProtocolError&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Byte by byte, every frame before a bad header comes out; larger pieces may
  // stop at the bad header first, but never disagree.
  const auto [frames, refused, partial] = split(data, size, 1);
  for (const std::size_t chunk : {std::size_t{3}, std::size_t{4096}, std::max(size, std::size_t{1})}) {
    const auto [otherFrames, otherRefused, otherPartial] = split(data, size, chunk);
    require(otherRefused == refused && otherPartial == partial &&
            (refused ? otherFrames.size() <= frames.size() : otherFrames.size() == frames.size()) &&
            std::equal(otherFrames.begin(), otherFrames.end(), frames.begin()));
  }
  // Re-encoded, the frames are the input up to a bad header or a partial frame.
  std::string framed;
  for (const Bytes& frame : frames) framed += toString(encodeFrame(frame)), checkFrame(frame);
  require(std::string(reinterpret_cast<const char*>(data), size).starts_with(framed) &&
          (refused || (framed.size() < size) == partial));
  return 0;
}
