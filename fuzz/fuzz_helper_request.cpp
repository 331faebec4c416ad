// Bytes from a peer, cut into frames however they arrive, then read as requests
// (and as replies, which a client reads from the daemon). Only ProtocolError may
// refuse them, and whatever is accepted must survive re-encoding unchanged.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "core/ipc/frame_codec.h"
#include "core/ipc/helper_protocol.h"

namespace {

using namespace harborkeeper;
using namespace harborkeeper::ipc;

struct Split {
  std::vector<Bytes> frames;
  bool refused = false;
  bool partial = false;
};

Split split(const std::uint8_t* data, std::size_t size, std::size_t chunk) {
  Split result;
  FrameReader reader;
  try {
    for (std::size_t offset = 0; offset < size; offset += chunk) {
      reader.append(reinterpret_cast<const char*>(data + offset), std::min(chunk, size - offset));
      while (auto payload = reader.next()) result.frames.push_back(std::move(*payload));
    }
    result.partial = reader.hasPartialFrame();
  } catch (const ProtocolError& error) {
    if (error.kind() != ProtocolError::Kind::badLength) std::abort();
    result.refused = true;
  }
  return result;
}

void checkRequest(const Bytes& payload) {
  Request request;
  try {
    request = decodeRequest(asStringView(payload));
  } catch (const ProtocolError& error) {
    if (error.kind() != ProtocolError::Kind::notPropertyList &&
        error.kind() != ProtocolError::Kind::badShape) {
      std::abort();
    }
    return;
  }
  if (decodeRequest(asStringView(encodeRequest(request))) != request) std::abort();
  try {
    if (validateRequest(request).selector != request.selector) std::abort();
  } catch (const ProtocolError& error) {
    if (error.kind() != ProtocolError::Kind::unknownSelector &&
        error.kind() != ProtocolError::Kind::badArguments) {
      std::abort();
    }
  }
}

void checkReply(const Bytes& payload) {
  Reply reply;
  try {
    reply = decodeReply(asStringView(payload));
  } catch (const ProtocolError&) {
    return;
  }
  if (decodeReply(asStringView(encodeReply(reply))) != reply) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Byte by byte, every frame before a bad header comes out; larger pieces may
  // stop at the bad header first, but never disagree.
  const Split reference = split(data, size, 1);
  for (const std::size_t chunk : {std::size_t{3}, std::size_t{4096}, std::max(size, std::size_t{1})}) {
    const Split other = split(data, size, chunk);
    if (other.refused != reference.refused || other.partial != reference.partial) std::abort();
    if (other.frames.size() > reference.frames.size() ||
        !std::equal(other.frames.begin(), other.frames.end(), reference.frames.begin())) {
      std::abort();
    }
    if (!reference.refused && other.frames.size() != reference.frames.size()) std::abort();
  }
  Bytes framed;
  for (const Bytes& frame : reference.frames) {
    const Bytes encoded = encodeFrame(frame);
    framed.insert(framed.end(), encoded.begin(), encoded.end());
  }
  if (framed.size() > size || !std::equal(framed.begin(), framed.end(), data)) std::abort();
  if (!reference.refused && (framed.size() < size) != reference.partial) std::abort();
  for (const Bytes& frame : reference.frames) {
    checkRequest(frame);
    checkReply(frame);
  }
  return 0;
}
