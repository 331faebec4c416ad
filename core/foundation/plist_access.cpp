#include <type_traits>
#include <variant>

#include "core/foundation/plist.h"

// Typed access for record decoders, kept apart from the libplist glue.
namespace harborkeeper::plist {

const Dictionary& asDictionary(const Value& value) {
  const auto* dictionary = value.get<Dictionary>();
  if (dictionary == nullptr) throw DecodeError::corrupted();
  return *dictionary;
}

const Value* find(const Dictionary& dictionary, std::string_view key) {
  const auto found = dictionary.find(key);
  return found == dictionary.end() ? nullptr : &found->second;
}

const Value& require(const Dictionary& dictionary, std::string_view key) {
  const Value* value = find(dictionary, key);
  if (value == nullptr) throw DecodeError::missing();
  return *value;
}

namespace {

template <typename T>
const T& requireTyped(const Dictionary& dictionary, std::string_view key) {
  const T* typed = require(dictionary, key).get<T>();
  if (typed == nullptr) throw DecodeError::corrupted();
  return *typed;
}

}  // namespace

const std::string& requireString(const Dictionary& dictionary, std::string_view key) {
  return requireTyped<std::string>(dictionary, key);
}

bool requireBool(const Dictionary& dictionary, std::string_view key) {
  return requireTyped<bool>(dictionary, key);
}

std::int64_t requireInteger(const Dictionary& dictionary, std::string_view key) {
  return requireTyped<std::int64_t>(dictionary, key);
}

Date requireDate(const Dictionary& dictionary, std::string_view key) {
  return requireTyped<Date>(dictionary, key);
}

const Bytes& requireData(const Dictionary& dictionary, std::string_view key) {
  return requireTyped<Bytes>(dictionary, key);
}

const Array& requireArray(const Dictionary& dictionary, std::string_view key) {
  return requireTyped<Array>(dictionary, key);
}

std::optional<std::string> optionalString(const Dictionary& dictionary, std::string_view key) {
  const Value* value = find(dictionary, key);
  if (value == nullptr) return std::nullopt;
  const auto* text = value->get<std::string>();
  if (text == nullptr) throw DecodeError::corrupted();
  return *text;
}

}  // namespace harborkeeper::plist

namespace harborkeeper::plist {

void Value::secureWipe() noexcept {
  std::visit(
      [](auto& held) {
        using Held = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Held, std::string> || std::is_same_v<Held, Bytes>) {
          harborkeeper::secureWipe(held);
        } else if constexpr (std::is_same_v<Held, Array>) {
          for (Value& item : held) item.secureWipe();
        } else if constexpr (std::is_same_v<Held, Dictionary>) {
          for (auto& entry : held) entry.second.secureWipe();
        }
      },
      storage_);
}

}  // namespace harborkeeper::plist
