#include "core/foundation/plist.h"

#include <openssl/crypto.h>
#include <plist/plist.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "core/foundation/internal/decode_messages.h"
#include "core/foundation/internal/plist_binary_check.h"
#include "core/foundation/internal/plist_xml_check.h"

namespace harborkeeper::plist {

DecodeError DecodeError::corrupted() { return DecodeError(harborkeeper::internal::kCorruptedDataMessage); }

DecodeError DecodeError::missing() { return DecodeError(harborkeeper::internal::kMissingDataMessage); }

EncodeError EncodeError::invalidValue() {
  return EncodeError("The data couldn’t be written because it isn’t in the correct format.");
}

namespace {

using internal::kMaxDepth;

// Property-list dates count seconds from 2001-01-01T00:00:00Z.
constexpr std::int64_t kMicrosecondsFrom1970To2001 = 978'307'200'000'000;
// Keeps every decoded date inside what a nanosecond system_clock can hold.
constexpr double kMaxSecondsFrom1970 = 9.0e9;

// Property lists carry passwords over the socket and into sealed storage, so
// every string and data payload is overwritten before libplist frees it.
void wipeValues(plist_t node) noexcept {
  std::uint64_t length = 0;
  switch (plist_get_node_type(node)) {
    case PLIST_STRING:
      if (const char* text = plist_get_string_ptr(node, &length)) {
        OPENSSL_cleanse(const_cast<char*>(text), length);
      }
      return;
    case PLIST_DATA:
      if (const char* data = plist_get_data_ptr(node, &length)) {
        OPENSSL_cleanse(const_cast<char*>(data), length);
      }
      return;
    case PLIST_ARRAY:
      for (std::uint32_t i = 0, n = plist_array_get_size(node); i < n; ++i) {
        wipeValues(plist_array_get_item(node, i));
      }
      return;
    case PLIST_DICT: {
      plist_dict_iter iterator = nullptr;
      plist_dict_new_iter(node, &iterator);
      for (;;) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, iterator, &key, &item);
        std::free(key);
        if (item == nullptr) break;
        wipeValues(item);
      }
      std::free(iterator);
      return;
    }
    default:
      return;
  }
}

struct NodeDeleter {
  void operator()(void* node) const {
    wipeValues(node);
    plist_free(node);
  }
};
using Node = std::unique_ptr<void, NodeDeleter>;

struct FreeDeleter {
  void operator()(void* memory) const { std::free(memory); }
};
using Malloced = std::unique_ptr<char, FreeDeleter>;

// libplist 2.2 hands out its output buffers through these; later versions use plist_mem_free.
struct XmlBufferDeleter {
  void operator()(char* buffer) const { plist_to_xml_free(buffer); }
};
struct BinaryBufferDeleter {
  void operator()(char* buffer) const { plist_to_bin_free(buffer); }
};

Node checked(plist_t node) {
  if (node == nullptr) throw std::bad_alloc();
  return Node(node);
}

// `write` is plist_to_xml or plist_to_bin; `Deleter` frees what it hands out.
template <class Deleter, class Write>
Bytes serialized(plist_t node, Write write) {
  char* raw = nullptr;
  std::uint32_t length = 0;
  write(node, &raw, &length);
  if (raw == nullptr) throw EncodeError::invalidValue();
  // Wiped before it goes back to libplist: it may hold a password.
  const auto wipeAndFree = [length](char* buffer) {
    OPENSSL_cleanse(buffer, length);
    Deleter{}(buffer);
  };
  const std::unique_ptr<char, decltype(wipeAndFree)> buffer(raw, wipeAndFree);
  return {raw, raw + length};
}

// libplist 2.2 reports dates as whole seconds plus an unsigned microsecond part
// (losing the sign of dates just before 2001) and tells negative integers from
// unsigned ones above INT64_MAX only in its binary writer. So a node is
// written alone, and its object read back: marker first, then the exact value.
std::string binaryObject(plist_t node) {
  const Node copy = checked(plist_copy(node));
  const Bytes binary = serialized<BinaryBufferDeleter>(copy.get(), plist_to_bin);
  const std::string_view view = asStringView(binary);
  const auto layout = internal::readBinaryLayout(view);
  if (!layout) throw DecodeError::corrupted();
  const auto offset = internal::objectOffset(*layout, layout->topObject);
  if (!offset) throw DecodeError::corrupted();
  return std::string(view.substr(*offset, layout->tableOffset - *offset));
}

// ---- Decoding -------------------------------------------------------------

Date dateFromSeconds(double sinceReference) {
  const double since1970 = sinceReference + static_cast<double>(kMicrosecondsFrom1970To2001) / 1e6;
  if (!std::isfinite(sinceReference) || std::fabs(since1970) > kMaxSecondsFrom1970) {
    throw DecodeError::corrupted();
  }
  const auto micros = std::llround(sinceReference * 1e6) + kMicrosecondsFrom1970To2001;
  return Date(std::chrono::duration_cast<Date::duration>(std::chrono::microseconds(micros)));
}

Date readDate(plist_t node) {
  const std::string object = binaryObject(node);
  if (object.size() < 9 || static_cast<unsigned char>(object[0]) != 0x33) throw DecodeError::corrupted();
  const std::uint64_t bits = internal::readBigEndian(object, 1, 8);
  double seconds = 0;
  std::memcpy(&seconds, &bits, sizeof seconds);
  return dateFromSeconds(seconds);
}

std::int64_t readInteger(plist_t node) {
  std::uint64_t value = 0;
  plist_get_uint_val(node, &value);
  if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    return static_cast<std::int64_t>(value);
  }
  // Eight bytes (marker 0x13) is a negative number; sixteen (0x14) an unsigned one.
  const std::string object = binaryObject(node);
  if (object.empty() || static_cast<unsigned char>(object[0]) != 0x13) throw DecodeError::corrupted();
  return static_cast<std::int64_t>(value);
}

std::string readText(const char* text, std::uint64_t length) {
  const std::string_view view(text == nullptr ? "" : text, text == nullptr ? 0 : length);
  if (!internal::isValidUtf8WithoutNul(view)) throw DecodeError::corrupted();
  return std::string(view);
}

Value fromNode(plist_t node, std::size_t depth);

Array arrayFromNode(plist_t node, std::size_t depth) {
  Array array;
  array.reserve(plist_array_get_size(node));
  plist_array_iter raw = nullptr;
  plist_array_new_iter(node, &raw);
  const std::unique_ptr<void, FreeDeleter> iterator(raw);
  for (;;) {
    plist_t item = nullptr;
    plist_array_next_item(node, raw, &item);
    if (item == nullptr) return array;
    array.push_back(fromNode(item, depth + 1));
  }
}

Dictionary dictionaryFromNode(plist_t node, std::size_t depth) {
  Dictionary dictionary;
  plist_dict_iter raw = nullptr;
  plist_dict_new_iter(node, &raw);
  const std::unique_ptr<void, FreeDeleter> iterator(raw);
  for (;;) {
    char* rawKey = nullptr;
    plist_t item = nullptr;
    plist_dict_next_item(node, raw, &rawKey, &item);
    const Malloced key(rawKey);
    if (item == nullptr) return dictionary;
    std::string name = readText(key.get(), key ? std::strlen(key.get()) : 0);
    if (!dictionary.emplace(std::move(name), fromNode(item, depth + 1)).second) {
      throw DecodeError::corrupted();
    }
  }
}

Value fromNode(plist_t node, std::size_t depth) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return Value(value != 0);
    }
    case PLIST_UINT:
      return Value(readInteger(node));
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      return Value(value);
    }
    case PLIST_STRING: {
      std::uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      return Value(readText(text, length));
    }
    case PLIST_DATE:
      return Value(readDate(node));
    case PLIST_DATA: {
      std::uint64_t length = 0;
      const auto* data = reinterpret_cast<const std::uint8_t*>(plist_get_data_ptr(node, &length));
      return Value(data == nullptr ? Bytes{} : Bytes(data, data + length));
    }
    case PLIST_ARRAY:
      if (depth >= kMaxDepth) throw DecodeError::corrupted();
      return Value(arrayFromNode(node, depth));
    case PLIST_DICT:
      if (depth >= kMaxDepth) throw DecodeError::corrupted();
      return Value(dictionaryFromNode(node, depth));
    default:
      throw DecodeError::corrupted();
  }
}

// ---- Encoding -------------------------------------------------------------

void appendBigEndian(std::string& out, std::uint64_t value, unsigned size) {
  for (unsigned i = size; i-- > 0;) out.push_back(static_cast<char>(value >> (8 * i)));
}

// A date node holding an exact double: plist_new_date takes 32-bit whole
// seconds and microseconds, which neither reach past 2069 nor say -0.5 s. So
// the node is read from a one-object binary property list instead.
Node dateNode(Date date, Format format) {
  const std::int64_t since1970 =
      std::chrono::floor<std::chrono::microseconds>(date.time_since_epoch()).count();
  if (std::fabs(static_cast<double>(since1970) / 1e6) > kMaxSecondsFrom1970) {
    throw EncodeError::invalidValue();
  }
  std::int64_t micros = since1970 - kMicrosecondsFrom1970To2001;
  if (format == Format::xml) micros -= ((micros % 1'000'000) + 1'000'000) % 1'000'000;
  const double seconds = static_cast<double>(micros) / 1e6;
  std::uint64_t bits = 0;
  std::memcpy(&bits, &seconds, sizeof bits);

  std::string binary(internal::kBinaryMagic);
  binary.push_back('\x33');  // the date object, at offset 8
  appendBigEndian(binary, bits, 8);
  const std::uint64_t tableOffset = binary.size();
  binary.push_back('\x08');         // offset table
  binary.append(6, '\0');           // trailer: unused bytes and sort version,
  binary.append({'\x01', '\x01'});  // offset and reference sizes,
  appendBigEndian(binary, 1, 8);    // object count,
  appendBigEndian(binary, 0, 8);    // top object,
  appendBigEndian(binary, tableOffset, 8);
  plist_t node = nullptr;
  plist_from_bin(binary.data(), static_cast<std::uint32_t>(binary.size()), &node);
  return checked(node);
}

const std::string& checkedText(const std::string& text) {
  if (!internal::isValidUtf8WithoutNul(text)) throw EncodeError::invalidValue();
  return text;
}

Node toNode(const Value& value, Format format, std::size_t depth);

Node arrayNode(const Array& array, Format format, std::size_t depth) {
  Node node = checked(plist_new_array());
  for (const Value& item : array) {
    plist_array_append_item(node.get(), toNode(item, format, depth + 1).release());
  }
  return node;
}

Node dictionaryNode(const Dictionary& dictionary, Format format, std::size_t depth) {
  Node node = checked(plist_new_dict());
  for (const auto& [key, item] : dictionary) {
    // Both can throw; nothing may be released to libplist before they have run.
    const std::string& name = checkedText(key);
    Node child = toNode(item, format, depth + 1);
    plist_dict_set_item(node.get(), name.c_str(), child.release());
  }
  return node;
}

Node toNode(const Value& value, Format format, std::size_t depth) {
  static constexpr char kEmpty = 0;
  const auto& storage = value.storage();
  if (const auto* text = std::get_if<std::string>(&storage)) {
    return checked(plist_new_string(checkedText(*text).c_str()));
  }
  if (const auto* flag = std::get_if<bool>(&storage)) return checked(plist_new_bool(*flag ? 1 : 0));
  if (const auto* integer = std::get_if<std::int64_t>(&storage)) {
    return checked(plist_new_uint(static_cast<std::uint64_t>(*integer)));
  }
  if (const auto* real = std::get_if<double>(&storage)) return checked(plist_new_real(*real));
  if (const auto* date = std::get_if<Date>(&storage)) return dateNode(*date, format);
  if (const auto* data = std::get_if<Bytes>(&storage)) {
    const char* bytes = data->empty() ? &kEmpty : reinterpret_cast<const char*>(data->data());
    return checked(plist_new_data(bytes, data->size()));
  }
  if (depth >= kMaxDepth) throw EncodeError::invalidValue();
  if (const auto* array = std::get_if<Array>(&storage)) return arrayNode(*array, format, depth);
  return dictionaryNode(std::get<Dictionary>(storage), format, depth);
}

Node parse(std::string_view bytes) {
  if (bytes.empty() || bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
    throw DecodeError::corrupted();
  }
  const auto length = static_cast<std::uint32_t>(bytes.size());
  plist_t node = nullptr;
  // libplist recurses per nesting level and expands shared binary objects, so
  // only input whose shape has been checked reaches it.
  if (bytes.starts_with(internal::kBinaryMagic)) {
    if (!internal::binaryShapeIsAcceptable(bytes)) throw DecodeError::corrupted();
    plist_from_bin(bytes.data(), length, &node);
  } else {
    if (!internal::xmlShapeIsAcceptable(bytes)) throw DecodeError::corrupted();
    plist_from_xml(bytes.data(), length, &node);
  }
  if (node == nullptr) throw DecodeError::corrupted();
  return Node(node);
}

}  // namespace

Bytes encode(const Value& value, Format format) {
  const Node node = toNode(value, format, 0);
  if (format == Format::xml) return serialized<XmlBufferDeleter>(node.get(), plist_to_xml);
  return serialized<BinaryBufferDeleter>(node.get(), plist_to_bin);
}

Value decode(std::string_view bytes) {
  const Node node = parse(bytes);
  return fromNode(node.get(), 0);
}

}  // namespace harborkeeper::plist
