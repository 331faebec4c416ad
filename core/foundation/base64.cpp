#include "core/foundation/base64.h"

#include <array>
#include <cstdint>

namespace harborkeeper::base64 {
namespace {

constexpr std::string_view kStandardAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view kUrlAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

// Each byte's value in the alphabet, or -1.
using DecodeTable = std::array<std::int16_t, 256>;

constexpr DecodeTable makeDecodeTable(std::string_view alphabet) {
  DecodeTable table{};
  for (auto& entry : table) entry = -1;
  for (std::size_t i = 0; i < alphabet.size(); ++i) {
    table[static_cast<std::uint8_t>(alphabet[i])] = static_cast<std::int16_t>(i);
  }
  return table;
}

constexpr DecodeTable kStandardTable = makeDecodeTable(kStandardAlphabet);
constexpr DecodeTable kUrlTable = makeDecodeTable(kUrlAlphabet);

std::string encodeWith(std::string_view bytes, std::string_view alphabet, bool pad) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  const auto* in = reinterpret_cast<const std::uint8_t*>(bytes.data());
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t v = (std::uint32_t{in[i]} << 16) | (std::uint32_t{in[i + 1]} << 8) | in[i + 2];
    out.push_back(alphabet[(v >> 18) & 0x3F]);
    out.push_back(alphabet[(v >> 12) & 0x3F]);
    out.push_back(alphabet[(v >> 6) & 0x3F]);
    out.push_back(alphabet[v & 0x3F]);
  }
  const std::size_t rest = bytes.size() - i;
  if (rest == 0) return out;
  std::uint32_t v = std::uint32_t{in[i]} << 16;
  if (rest == 2) v |= std::uint32_t{in[i + 1]} << 8;
  out.push_back(alphabet[(v >> 18) & 0x3F]);
  out.push_back(alphabet[(v >> 12) & 0x3F]);
  if (rest == 2) out.push_back(alphabet[(v >> 6) & 0x3F]);
  if (pad) out.append(rest == 1 ? "==" : "=");
  return out;
}

// The 24 bits that `count` (at most four) symbols stand for, missing ones
// counting as zero; nothing if a symbol is outside the alphabet.
std::optional<std::uint32_t> symbolBits(const DecodeTable& table, const std::uint8_t* symbols,
                                        std::size_t count) {
  std::uint32_t bits = 0;
  for (std::size_t k = 0; k < 4; ++k) {
    const int value = k < count ? table[symbols[k]] : 0;
    if (value < 0) return std::nullopt;
    bits = (bits << 6) | static_cast<std::uint32_t>(value);
  }
  return bits;
}

// Decodes text without padding whose length is not 4n+1. The bits below the
// last whole byte must be zero so that every byte string has one encoding.
std::optional<Bytes> decodeUnpadded(std::string_view text, const DecodeTable& table) {
  if (text.size() % 4 == 1) return std::nullopt;
  Bytes out;
  out.reserve(text.size() / 4 * 3 + 2);
  const auto* in = reinterpret_cast<const std::uint8_t*>(text.data());
  std::size_t i = 0;
  for (; i + 4 <= text.size(); i += 4) {
    const auto bits = symbolBits(table, in + i, 4);
    if (!bits) return std::nullopt;
    out.push_back(static_cast<std::uint8_t>(*bits >> 16));
    out.push_back(static_cast<std::uint8_t>(*bits >> 8));
    out.push_back(static_cast<std::uint8_t>(*bits));
  }
  const std::size_t rest = text.size() - i;
  if (rest == 0) return out;
  const auto bits = symbolBits(table, in + i, rest);
  if (!bits) return std::nullopt;
  const std::uint32_t leftover = rest == 2 ? (*bits & 0xFFFF) : (*bits & 0xFF);
  if (leftover != 0) return std::nullopt;
  out.push_back(static_cast<std::uint8_t>(*bits >> 16));
  if (rest == 3) out.push_back(static_cast<std::uint8_t>(*bits >> 8));
  return out;
}

// Padded text: a multiple of 4 long, at most two '=' and only at the end.
std::optional<Bytes> decodePadded(std::string_view text, const DecodeTable& table) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
  // Any '=' left in the body is rejected by the table.
  return decodeUnpadded(text.substr(0, text.size() - padding), table);
}

}  // namespace

std::string encode(std::string_view bytes) { return encodeWith(bytes, kStandardAlphabet, true); }

std::optional<Bytes> decode(std::string_view text) { return decodePadded(text, kStandardTable); }

std::string encodeUrl(std::string_view bytes) { return encodeWith(bytes, kUrlAlphabet, false); }

std::optional<Bytes> decodeUrl(std::string_view text) {
  if (!text.empty() && text.back() == '=') return decodePadded(text, kUrlTable);
  return decodeUnpadded(text, kUrlTable);
}

}  // namespace harborkeeper::base64
