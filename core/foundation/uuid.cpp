#include "core/foundation/uuid.h"

#include <openssl/rand.h>

#include <array>
#include <cctype>
#include <cstdint>
#include <stdexcept>

namespace harborkeeper::uuid {

std::string makeV4() {
  std::array<std::uint8_t, 16> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    throw std::runtime_error("Could not generate a random UUID.");
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);

  constexpr std::string_view kHex = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
    text.push_back(kHex[bytes[i] >> 4]);
    text.push_back(kHex[bytes[i] & 0x0F]);
  }
  return text;
}

std::optional<std::string> parse(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  std::string upper;
  upper.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? c != '-' : std::isxdigit(static_cast<unsigned char>(c)) == 0) return std::nullopt;
    upper.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
  }
  return upper;
}

}  // namespace harborkeeper::uuid
