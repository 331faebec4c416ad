#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

// JSON as the system writes it: keys sorted (nlohmann::json keeps objects in
// a std::map), "/" never escaped, UTF-8 written as is.
namespace harborkeeper::json {

using Json = nlohmann::json;

// what() is the user-facing text, never the input.
class DecodeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  // "The data couldn’t be read because it isn’t in the correct format."
  static DecodeError corrupted();
  // "The data couldn’t be read because it is missing."
  static DecodeError missing();
};

// Compact: no white space between tokens. Invalid UTF-8 in a string is
// written as U+FFFD rather than failing.
std::string serialize(const Json& value);
// Two-space indentation and "key" : value separators, one member or element
// per line, "{}" and "[]" for empty containers, no final newline.
std::string serializePretty(const Json& value);

// Strict RFC 8259 JSON (no comments, no trailing commas); nesting deeper than
// 64 levels is refused. Throws DecodeError::corrupted().
Json parse(std::string_view text);

// Typed access for record decoders: a missing key throws missing(), a value of
// another type (a boolean given as text, say) corrupted().
const Json& require(const Json& object, std::string_view key);
const std::string& requireString(const Json& object, std::string_view key);
bool requireBool(const Json& object, std::string_view key);
std::int64_t requireInteger(const Json& object, std::string_view key);
// Absent when missing or null; corrupted() when present with another type.
std::optional<std::string> optionalString(const Json& object, std::string_view key);

}  // namespace harborkeeper::json
