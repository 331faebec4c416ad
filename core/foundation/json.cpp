#include "core/foundation/json.h"

#include <cmath>
#include <limits>

#include "core/foundation/internal/decode_messages.h"

namespace harborkeeper::json {

DecodeError DecodeError::corrupted() { return DecodeError(internal::kCorruptedDataMessage); }

DecodeError DecodeError::missing() { return DecodeError(internal::kMissingDataMessage); }

namespace {

constexpr std::size_t kMaxDepth = 64;

// Invalid UTF-8 in a string becomes U+FFFD instead of an exception.
std::string dumpCompact(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void writePretty(const Json& value, std::size_t indent, std::string& out) {
  const bool object = value.is_object();
  if (!(object || value.is_array()) || value.empty()) {
    out += dumpCompact(value);  // scalars, "{}" and "[]"
    return;
  }
  out += object ? "{\n" : "[\n";
  for (auto item = value.begin(); item != value.end(); ++item) {
    if (item != value.begin()) out += ",\n";
    out.append(indent + 2, ' ');
    if (object) {
      out += dumpCompact(Json(item.key()));
      out += " : ";
    }
    writePretty(item.value(), indent + 2, out);
  }
  out += '\n';
  out.append(indent, ' ');
  out += object ? '}' : ']';
}

// Exact for valid JSON; the parser stops at the first error, so invalid input
// cannot get past it deeper than the count says.
bool nestingWithinLimit(std::string_view text) {
  std::size_t depth = 0;
  bool inString = false;
  bool escaped = false;
  for (const char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxDepth) return false;
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return true;
}

// Null when the key is missing or holds null; `object` must be an object.
const Json* member(const Json& object, std::string_view key) {
  if (!object.is_object()) throw DecodeError::corrupted();
  const auto found = object.find(key);
  return found == object.end() || found->is_null() ? nullptr : &*found;
}

}  // namespace

std::string serialize(const Json& value) { return dumpCompact(value); }

std::string serializePretty(const Json& value) {
  std::string out;
  writePretty(value, 0, out);
  return out;
}

Json parse(std::string_view text) {
  if (!nestingWithinLimit(text)) throw DecodeError::corrupted();
  try {
    return Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/true,
                       /*ignore_comments=*/false);
  } catch (const Json::exception&) {
    throw DecodeError::corrupted();
  }
}

const Json& require(const Json& object, std::string_view key) {
  const Json* value = member(object, key);
  if (value == nullptr) throw DecodeError::missing();
  return *value;
}

const std::string& requireString(const Json& object, std::string_view key) {
  const Json& value = require(object, key);
  if (!value.is_string()) throw DecodeError::corrupted();
  return value.get_ref<const std::string&>();
}

bool requireBool(const Json& object, std::string_view key) {
  const Json& value = require(object, key);
  if (!value.is_boolean()) throw DecodeError::corrupted();
  return value.get<bool>();
}

std::int64_t requireInteger(const Json& object, std::string_view key) {
  const Json& value = require(object, key);
  if (value.is_number_integer() && !value.is_number_unsigned()) return value.get<std::int64_t>();
  if (value.is_number_unsigned()) {
    const auto number = value.get<std::uint64_t>();
    if (number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      throw DecodeError::corrupted();
    }
    return static_cast<std::int64_t>(number);
  }
  if (value.is_number_float()) {
    // 2^63 is exact as a double; anything from there on does not fit.
    constexpr double kLimit = 9223372036854775808.0;
    const auto number = value.get<double>();
    if (std::isfinite(number) && std::trunc(number) == number && number >= -kLimit && number < kLimit) {
      return static_cast<std::int64_t>(number);
    }
  }
  throw DecodeError::corrupted();
}

std::optional<std::string> optionalString(const Json& object, std::string_view key) {
  const Json* value = member(object, key);
  if (value == nullptr) return std::nullopt;
  if (!value->is_string()) throw DecodeError::corrupted();
  return value->get<std::string>();
}

}  // namespace harborkeeper::json
