#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "core/foundation/bytes.h"
#include "core/foundation/date_time.h"

// A typed value model for property lists, encoded and decoded with libplist.
// Records map themselves to and from `plist::Value`; nothing outside this
// file touches libplist.
namespace harborkeeper::plist {

class Value;
using Array = std::vector<Value>;
using Dictionary = std::map<std::string, Value, std::less<>>;

class Value {
 public:
  using Storage = std::variant<std::string, bool, std::int64_t, double, Date, Bytes, Array, Dictionary>;

  Value() : storage_(Dictionary{}) {}
  Value(std::string v) : storage_(std::move(v)) {}          // NOLINT(google-explicit-constructor)
  Value(const char* v) : storage_(std::string(v)) {}        // NOLINT(google-explicit-constructor)
  Value(bool v) : storage_(v) {}                            // NOLINT(google-explicit-constructor)
  Value(std::int64_t v) : storage_(v) {}                    // NOLINT(google-explicit-constructor)
  Value(int v) : storage_(static_cast<std::int64_t>(v)) {}  // NOLINT(google-explicit-constructor)
  Value(double v) : storage_(v) {}                          // NOLINT(google-explicit-constructor)
  Value(Date v) : storage_(v) {}                            // NOLINT(google-explicit-constructor)
  Value(Bytes v) : storage_(std::move(v)) {}                // NOLINT(google-explicit-constructor)
  Value(Array v) : storage_(std::move(v)) {}                // NOLINT(google-explicit-constructor)
  Value(Dictionary v) : storage_(std::move(v)) {}           // NOLINT(google-explicit-constructor)

  template <typename T>
  [[nodiscard]] bool is() const {
    return std::holds_alternative<T>(storage_);
  }
  // Null when the value holds another type.
  template <typename T>
  [[nodiscard]] const T* get() const {
    return std::get_if<T>(&storage_);
  }

  [[nodiscard]] const Storage& storage() const { return storage_; }
  // Overwrites every string and data payload inside, for values that carried
  // a password. The value keeps its shape with those payloads emptied.
  void secureWipe() noexcept;
  bool operator==(const Value& other) const = default;

 private:
  Storage storage_;
};

inline void secureWipe(Value& value) noexcept { value.secureWipe(); }
inline void secureWipe(Array& values) noexcept {
  for (Value& value : values) value.secureWipe();
}

enum class Format { xml, binary };

// Thrown for bytes that are not a property list, or a property list of the
// wrong shape. what() is the user-facing text, never the input.
class DecodeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  // "The data couldn’t be read because it isn’t in the correct format."
  static DecodeError corrupted();
  // "The data couldn’t be read because it is missing."
  static DecodeError missing();
};

// Thrown by encode for a value no property list can carry: a string or key
// that is not valid UTF-8 or holds a NUL, nesting deeper than 64 levels, or a
// date more than 9e9 seconds (about 285 years) from 1970.
class EncodeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  // "The data couldn’t be written because it isn’t in the correct format."
  static EncodeError invalidValue();
};

// XML output is the usual Apple-style document. XML dates carry whole seconds
// (a fraction is dropped toward the earlier second); binary dates keep
// microseconds.
Bytes encode(const Value& value, Format format);

// Accepts XML and binary property lists. Nesting deeper than 64 levels, more
// than 2^20 values, dictionaries of more than 16384 keys, strings that are not
// valid UTF-8 (or hold a NUL), sets and UIDs are refused as corrupted rather
// than handed on; so is an integer outside the signed 64-bit range. XML is
// checked for well-formedness before it is parsed. A repeated key keeps its
// last value.
Value decode(std::string_view bytes);
inline Value decode(const Bytes& bytes) { return decode(asStringView(bytes)); }

// Typed access for record decoders. A missing key throws DecodeError::missing(),
// a value of another type DecodeError::corrupted().
const Dictionary& asDictionary(const Value& value);
const Value& require(const Dictionary& dictionary, std::string_view key);
const Value* find(const Dictionary& dictionary, std::string_view key);
const std::string& requireString(const Dictionary& dictionary, std::string_view key);
bool requireBool(const Dictionary& dictionary, std::string_view key);
std::int64_t requireInteger(const Dictionary& dictionary, std::string_view key);
Date requireDate(const Dictionary& dictionary, std::string_view key);
const Bytes& requireData(const Dictionary& dictionary, std::string_view key);
const Array& requireArray(const Dictionary& dictionary, std::string_view key);
// Absent when the key is missing; throws corrupted() when present with another type.
std::optional<std::string> optionalString(const Dictionary& dictionary, std::string_view key);

}  // namespace harborkeeper::plist
