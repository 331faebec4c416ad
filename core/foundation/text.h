#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Unicode-aware text helpers over UTF-8. Invalid UTF-8 never throws: it is
// treated as U+FFFD wherever a code point is needed.
namespace harborkeeper::text {

// Removes Unicode white space and newlines (the White_Space property:
// U+0009-000D, U+0020, U+0085, U+00A0, U+1680, U+2000-200A, U+2028, U+2029,
// U+202F, U+205F, U+3000) from both ends.
std::string trimmed(std::string_view text);

bool isWhitespaceOnly(std::string_view text);

// Full Unicode lower-casing (root locale).
std::string lowercased(std::string_view text);

// Literal (not pattern) case-insensitive search, by full case folding. A match
// begins and ends on code point boundaries of the haystack ("s" is not found in
// "ß", "ss" is). An empty needle is never found.
bool containsCaseInsensitive(std::string_view haystack, std::string_view needle);

// Replaces every non-overlapping, case-insensitive occurrence of `target`
// (left to right) by `replacement`. An empty target leaves the text unchanged;
// the text between matches is kept byte for byte, invalid UTF-8 included.
std::string replacingCaseInsensitive(std::string_view text, std::string_view target,
                                     std::string_view replacement);

// Replaces every non-overlapping, exact (case-sensitive) occurrence of `target`
// (bytewise, left to right). An empty target leaves the text unchanged.
std::string replacingOccurrences(std::string_view text, std::string_view target,
                                 std::string_view replacement);

// Number of user-perceived characters (extended grapheme clusters).
std::size_t userPerceivedLength(std::string_view text);

// Decodes bytes as UTF-8, replacing every invalid sequence by U+FFFD.
std::string repairedUtf8(std::string_view bytes);

bool startsWith(std::string_view text, std::string_view prefix);

}  // namespace harborkeeper::text
