#pragma once

// Checks run before libplist sees untrusted bytes, and the binary-format
// reading they share with the codec. libplist 2.2 recurses once per nesting
// level (a deep document overflows its stack) and copies a binary object once
// per reference (a small document can expand without bound), so the object
// graph is walked and bounded first.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace harborkeeper::plist::internal {

inline constexpr std::size_t kMaxDepth = 64;
inline constexpr std::uint64_t kMaxValues = std::uint64_t{1} << 20;
inline constexpr std::uint64_t kMaxDictionaryEntries = std::uint64_t{1} << 14;
inline constexpr std::uint64_t kMaxPayloadBytes = std::uint64_t{64} << 20;
inline constexpr std::string_view kBinaryMagic = "bplist00";

// Strict UTF-8 (no overlong forms, surrogates or values past U+10FFFF) and no
// NUL, which libplist would cut a string at.
bool isValidUtf8WithoutNul(std::string_view text);

// REQUIRES: `at + size` lies within `bytes`; `size` at most 8.
std::uint64_t readBigEndian(std::string_view bytes, std::uint64_t at, unsigned size);

// Where a binary property list keeps its objects, read from its trailer.
struct BinaryLayout {
  std::string_view bytes;
  unsigned offsetSize = 0;
  unsigned referenceSize = 0;
  std::uint64_t objectCount = 0;
  std::uint64_t topObject = 0;
  std::uint64_t tableOffset = 0;  // objects lie between the magic and here
};

// Nothing unless the magic, the trailer and the offset table are consistent.
std::optional<BinaryLayout> readBinaryLayout(std::string_view bytes);

// Where object `index` starts; nothing when that is outside the object area.
// REQUIRES: index < layout.objectCount.
std::optional<std::uint64_t> objectOffset(const BinaryLayout& layout, std::uint64_t index);

// Walks the object graph once (shared objects are costed, not revisited) and
// refuses cycles, sets, UIDs, unknown markers, objects running past the object
// area, strings holding a NUL, and graphs whose expanded tree would break the
// limits above.
bool binaryShapeIsAcceptable(std::string_view bytes);

}  // namespace harborkeeper::plist::internal
