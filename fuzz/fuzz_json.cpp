// Whatever the parser accepts must read back the same from both writers.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "core/foundation/json.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace harborkeeper;
  json::Json value;
  try {
    value = json::parse(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const json::DecodeError&) {
    return 0;
  }
  if (json::parse(json::serialize(value)) != value) std::abort();
  if (json::parse(json::serializePretty(value)) != value) std::abort();
  return 0;
}
