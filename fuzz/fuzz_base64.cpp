// Both decoders must accept exactly the canonical encodings: whatever they
// accept has to come back unchanged from the matching encoder.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/foundation/base64.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace harborkeeper;
  const std::string_view input(reinterpret_cast<const char*>(data), size);

  if (const auto decoded = base64::decode(input)) {
    if (base64::encode(*decoded) != input) std::abort();
  }

  if (const auto decoded = base64::decodeUrl(input)) {
    std::string_view unpadded = input;
    while (!unpadded.empty() && unpadded.back() == '=') unpadded.remove_suffix(1);
    if (base64::encodeUrl(*decoded) != unpadded) std::abort();
  }

  const Bytes bytes(data, data + size);
  if (base64::decode(base64::encode(input)) != bytes) std::abort();
  if (base64::decodeUrl(base64::encodeUrl(input)) != bytes) std::abort();
  return 0;
}
