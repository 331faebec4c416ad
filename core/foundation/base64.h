#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "core/foundation/bytes.h"

namespace harborkeeper::base64 {

std::string encode(std::string_view bytes);
inline std::string encode(const Bytes& bytes) { return encode(asStringView(bytes)); }

// Strict: the standard alphabet only, padding required (length a multiple of
// 4), no white space, no URL-safe letters. Returns nothing for anything else.
std::optional<Bytes> decode(std::string_view text);

// base64 with '+' -> '-', '/' -> '_' and the '=' padding removed.
std::string encodeUrl(std::string_view bytes);
inline std::string encodeUrl(const Bytes& bytes) { return encodeUrl(asStringView(bytes)); }

// The URL-safe alphabet; padding is optional (repaired before decoding) but,
// when present, must be correct. Returns nothing for anything else.
std::optional<Bytes> decodeUrl(std::string_view text);

}  // namespace harborkeeper::base64
