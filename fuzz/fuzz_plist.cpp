// Whatever the decoder accepts must survive encoding in both formats: binary
// exactly, XML up to its whole-second dates.
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/foundation/plist.h"

namespace {

using namespace harborkeeper;

// Floors dates when `wholeSeconds`, and turns NaN (which never equals itself)
// into a string no decoder yields, since strings with a NUL are refused.
plist::Value normalized(const plist::Value& value, bool wholeSeconds) {
  if (const auto* date = value.get<Date>(); date && wholeSeconds) {
    return Date(std::chrono::floor<std::chrono::seconds>(*date));
  }
  if (const auto* real = value.get<double>(); real && std::isnan(*real)) return std::string("\0NaN", 4);
  if (const auto* array = value.get<plist::Array>()) {
    plist::Array out;
    for (const auto& item : *array) out.push_back(normalized(item, wholeSeconds));
    return out;
  }
  if (const auto* dictionary = value.get<plist::Dictionary>()) {
    plist::Dictionary out;
    for (const auto& [key, item] : *dictionary) out.emplace(key, normalized(item, wholeSeconds));
    return out;
  }
  return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  plist::Value value;
  try {
    value = plist::decode(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const plist::DecodeError&) {
    return 0;
  }
  const plist::Value exact = normalized(value, false);
  if (normalized(plist::decode(plist::encode(value, plist::Format::binary)), false) != exact) std::abort();
  if (normalized(plist::decode(plist::encode(value, plist::Format::xml)), false) != normalized(value, true)) {
    std::abort();
  }
  return 0;
}
