// Whatever the decoder accepts must survive encoding in both formats: binary
// exactly, XML up to its whole-second dates.
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "core/foundation/plist.h"

namespace {

using namespace harborkeeper;

plist::Value wholeSecondDates(const plist::Value& value) {
  const auto& storage = value.storage();
  if (const auto* date = std::get_if<Date>(&storage))
    return Date(std::chrono::floor<std::chrono::seconds>(*date));
  if (const auto* array = std::get_if<plist::Array>(&storage)) {
    plist::Array out;
    for (const auto& item : *array) out.push_back(wholeSecondDates(item));
    return out;
  }
  if (const auto* dictionary = std::get_if<plist::Dictionary>(&storage)) {
    plist::Dictionary out;
    for (const auto& [key, item] : *dictionary) out.emplace(key, wholeSecondDates(item));
    return out;
  }
  return value;
}

// Value equality, except that NaN equals NaN.
bool same(const plist::Value& a, const plist::Value& b) {
  const auto* x = a.get<double>();
  const auto* y = b.get<double>();
  if (x && y) return *x == *y || (std::isnan(*x) && std::isnan(*y));
  const auto* arrayA = a.get<plist::Array>();
  const auto* arrayB = b.get<plist::Array>();
  if (arrayA && arrayB) {
    if (arrayA->size() != arrayB->size()) return false;
    for (std::size_t i = 0; i < arrayA->size(); ++i) {
      if (!same((*arrayA)[i], (*arrayB)[i])) return false;
    }
    return true;
  }
  const auto* dictA = a.get<plist::Dictionary>();
  const auto* dictB = b.get<plist::Dictionary>();
  if (dictA && dictB) {
    if (dictA->size() != dictB->size()) return false;
    for (auto i = dictA->begin(), j = dictB->begin(); i != dictA->end(); ++i, ++j) {
      if (i->first != j->first || !same(i->second, j->second)) return false;
    }
    return true;
  }
  return a == b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  plist::Value value;
  try {
    value = plist::decode(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const plist::DecodeError&) {
    return 0;
  }
  if (!same(plist::decode(plist::encode(value, plist::Format::binary)), value)) std::abort();
  if (!same(plist::decode(plist::encode(value, plist::Format::xml)), wholeSecondDates(value))) std::abort();
  return 0;
}
