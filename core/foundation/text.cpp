#include "core/foundation/text.h"

#include <unicode/brkiter.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>
#include <unicode/utf8.h>

#include <memory>
#include <optional>
#include <vector>

namespace harborkeeper::text {
namespace {

constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";

// Decodes the code point at `offset` and advances past it. Invalid input yields
// a negative value and skips one maximal subpart, as ICU does.
UChar32 nextCodePoint(std::string_view text, std::size_t& offset) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  const auto length = static_cast<std::int32_t>(text.size());
  auto index = static_cast<std::int32_t>(offset);
  UChar32 c = 0;
  U8_NEXT(bytes, index, length, c);
  offset = static_cast<std::size_t>(index);
  return c;
}

bool isWhiteSpace(UChar32 c) { return c >= 0 && u_isUWhiteSpace(c); }

std::u16string toUtf16(std::string_view text) {
  std::u16string result;
  result.reserve(text.size());
  std::size_t offset = 0;
  while (offset < text.size()) {
    UChar32 c = nextCodePoint(text, offset);
    if (c < 0) c = 0xFFFD;
    if (c <= 0xFFFF) {
      result.push_back(static_cast<char16_t>(c));
    } else {
      result.push_back(static_cast<char16_t>(U16_LEAD(c)));
      result.push_back(static_cast<char16_t>(U16_TRAIL(c)));
    }
  }
  return result;
}

std::string toUtf8(std::u16string_view text) {
  std::string result;
  icu::UnicodeString(false, text.data(), static_cast<std::int32_t>(text.size())).toUTF8String(result);
  return result;
}

// Runs an ICU case mapping into a buffer of `guess` code units, and once more
// at the exact size ICU asks for if that was too small. Nothing if ICU fails.
template <class Map>
std::optional<std::u16string> mappedCase(std::u16string_view source, std::size_t guess, const Map& map) {
  std::u16string result(guess, u'\0');
  for (int attempt = 0; attempt < 2; ++attempt) {
    UErrorCode status = U_ZERO_ERROR;
    const std::int32_t length = map(result.data(), static_cast<std::int32_t>(result.size()), source.data(),
                                    static_cast<std::int32_t>(source.size()), &status);
    if (status == U_BUFFER_OVERFLOW_ERROR) {
      result.assign(static_cast<std::size_t>(length), u'\0');
      continue;
    }
    if (U_FAILURE(status)) break;
    result.resize(static_cast<std::size_t>(length));
    return result;
  }
  return std::nullopt;
}

// Full case folding of a UTF-16 string. Folding is context-free, so folding a
// text equals folding its code points one by one.
std::u16string foldCase(std::u16string_view text) {
  if (text.empty()) return {};
  const auto fold = [](UChar* out, std::int32_t capacity, const UChar* in, std::int32_t length,
                       UErrorCode* status) {
    return u_strFoldCase(out, capacity, in, length, U_FOLD_CASE_DEFAULT, status);
  };
  return mappedCase(text, text.size() * 3 + 4, fold).value_or(std::u16string(text));
}

// The folded form of a UTF-8 text, remembering which folded positions begin a
// code point of the original and at which byte that code point starts.
struct FoldedText {
  std::u16string folded;
  // For each folded index 0..folded.size(): the original byte offset when a
  // code point boundary lies there, otherwise npos.
  std::vector<std::size_t> byteOffsetAt;
};

FoldedText foldWithBoundaries(std::string_view text) {
  FoldedText result;
  result.folded.reserve(text.size());
  result.byteOffsetAt.reserve(text.size() + 1);
  std::size_t offset = 0;
  while (offset < text.size()) {
    const std::size_t start = offset;
    UChar32 c = nextCodePoint(text, offset);
    result.byteOffsetAt.push_back(start);
    if (c >= 0 && c < 0x80) {
      result.folded.push_back(static_cast<char16_t>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c));
      continue;
    }
    if (c < 0) c = 0xFFFD;
    char16_t units[2];
    std::int32_t count = 0;
    U16_APPEND_UNSAFE(units, count, c);
    const std::u16string piece = foldCase(std::u16string_view(units, static_cast<std::size_t>(count)));
    result.byteOffsetAt.insert(result.byteOffsetAt.end(), piece.size() - 1, std::string_view::npos);
    result.folded += piece;
  }
  result.byteOffsetAt.push_back(text.size());
  return result;
}

struct ByteRange {
  std::size_t begin;
  std::size_t end;
};

// Non-overlapping case-insensitive matches, left to right, as byte ranges of
// `text`. A match must begin and end where code points of `text` do.
std::vector<ByteRange> findCaseInsensitive(std::string_view text, std::string_view needle, bool firstOnly) {
  std::vector<ByteRange> matches;
  const std::u16string foldedNeedle = foldCase(toUtf16(needle));
  if (foldedNeedle.empty() || text.empty()) return matches;
  const FoldedText haystack = foldWithBoundaries(text);
  const auto npos = std::string_view::npos;
  std::size_t from = 0;
  while (true) {
    const std::size_t at = haystack.folded.find(foldedNeedle, from);
    if (at == std::u16string::npos) break;
    const std::size_t end = at + foldedNeedle.size();
    if (haystack.byteOffsetAt[at] == npos || haystack.byteOffsetAt[end] == npos) {
      from = at + 1;
      continue;
    }
    matches.push_back({haystack.byteOffsetAt[at], haystack.byteOffsetAt[end]});
    if (firstOnly) break;
    from = end;
  }
  return matches;
}

// `text` with each of the ascending, disjoint `ranges` replaced.
std::string withRangesReplaced(std::string_view text, const std::vector<ByteRange>& ranges,
                               std::string_view replacement) {
  if (ranges.empty()) return std::string(text);
  std::string result;
  result.reserve(text.size());
  std::size_t copied = 0;
  for (const ByteRange& range : ranges) {
    result.append(text.substr(copied, range.begin - copied));
    result.append(replacement);
    copied = range.end;
  }
  result.append(text.substr(copied));
  return result;
}

}  // namespace

std::string trimmed(std::string_view text) {
  std::size_t begin = text.size();
  std::size_t end = 0;
  std::size_t offset = 0;
  while (offset < text.size()) {
    const std::size_t start = offset;
    if (!isWhiteSpace(nextCodePoint(text, offset))) {
      if (begin == text.size()) begin = start;
      end = offset;
    }
  }
  if (begin >= end) return {};
  return std::string(text.substr(begin, end - begin));
}

bool isWhitespaceOnly(std::string_view text) {
  std::size_t offset = 0;
  while (offset < text.size()) {
    if (!isWhiteSpace(nextCodePoint(text, offset))) return false;
  }
  return true;
}

std::string lowercased(std::string_view text) {
  const std::u16string source = toUtf16(text);
  if (source.empty()) return {};
  const auto lower = [](UChar* out, std::int32_t capacity, const UChar* in, std::int32_t length,
                        UErrorCode* status) { return u_strToLower(out, capacity, in, length, "", status); };
  return toUtf8(mappedCase(source, source.size() + 16, lower).value_or(source));
}

bool containsCaseInsensitive(std::string_view haystack, std::string_view needle) {
  return !findCaseInsensitive(haystack, needle, true).empty();
}

std::string replacingCaseInsensitive(std::string_view text, std::string_view target,
                                     std::string_view replacement) {
  return withRangesReplaced(text, findCaseInsensitive(text, target, false), replacement);
}

std::string replacingOccurrences(std::string_view text, std::string_view target,
                                 std::string_view replacement) {
  std::vector<ByteRange> matches;
  if (!target.empty()) {
    for (std::size_t at = text.find(target); at != std::string_view::npos;
         at = text.find(target, at + target.size())) {
      matches.push_back({at, at + target.size()});
    }
  }
  return withRangesReplaced(text, matches, replacement);
}

std::size_t userPerceivedLength(std::string_view text) {
  if (text.empty()) return 0;
  // Building the rules is costly; each thread keeps its own iterator.
  thread_local std::unique_ptr<icu::BreakIterator> iterator = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> created(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status)) created.reset();
    return created;
  }();
  const std::u16string utf16 = toUtf16(text);
  if (!iterator) return utf16.size();
  const icu::UnicodeString unicode(false, utf16.data(), static_cast<std::int32_t>(utf16.size()));
  iterator->setText(unicode);
  std::size_t count = 0;
  for (std::int32_t at = iterator->next(); at != icu::BreakIterator::DONE; at = iterator->next()) {
    ++count;
  }
  iterator->setText(icu::UnicodeString());
  return count;
}

std::string repairedUtf8(std::string_view bytes) {
  std::string result;
  result.reserve(bytes.size());
  std::size_t offset = 0;
  while (offset < bytes.size()) {
    const std::size_t start = offset;
    if (nextCodePoint(bytes, offset) < 0) {
      result.append(kReplacementCharacter);
    } else {
      result.append(bytes.substr(start, offset - start));
    }
  }
  return result;
}

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

}  // namespace harborkeeper::text
