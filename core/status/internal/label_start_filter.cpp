#include "core/status/internal/label_start_filter.h"

#include <unicode/unistr.h>
#include <unicode/utf16.h>

#include <bit>
#include <cstdint>

namespace harborkeeper::internal {
namespace {

constexpr char asciiLower(char16_t c) { return static_cast<char>(c >= u'A' && c <= u'Z' ? c + 0x20 : c); }

// Bit i set: the ASCII character can be the letter at `position` of
// kLabelFirstWords[i].
constexpr std::array<uint8_t, 0x80> wordsByLetterAt(std::size_t position) {
  static_assert(kLabelFirstWords.size() <= 8);
  std::array<uint8_t, 0x80> table{};
  for (std::size_t c = 0; c < table.size(); ++c) {
    for (std::size_t word = 0; word < kLabelFirstWords.size(); ++word) {
      if (kLabelFirstWords[word][position] == asciiLower(static_cast<char16_t>(c))) {
        table[c] |= static_cast<uint8_t>(1U << word);
      }
    }
  }
  return table;
}
constexpr std::array<uint8_t, 0x80> kWordsByFirstLetter = wordsByLetterAt(0);
constexpr std::array<uint8_t, 0x80> kWordsBySecondLetter = wordsByLetterAt(1);

bool hasAsciiLetter(const icu::UnicodeString& text) {
  for (int32_t i = 0; i < text.length(); ++i) {
    const char16_t c = text.charAt(i);
    if (c < 0x80 && asciiLower(c) >= 'a' && asciiLower(c) <= 'z') {
      return true;
    }
  }
  return false;
}

// False only when `word` certainly does not begin at `index`. A non-ASCII
// character after the first is rare enough to leave to ICU unexamined.
bool mayBeWordAt(std::u16string_view text, std::size_t index, std::string_view word) {
  for (const char letter : word) {
    if (index >= text.size()) {
      return false;
    }
    if (text[index] >= 0x80) {
      return true;
    }
    if (asciiLower(text[index++]) != letter) {
      return false;
    }
  }
  return true;
}

bool mayBeOneOf(unsigned words, std::u16string_view text, std::size_t index) {
  for (; words != 0; words &= words - 1) {
    if (mayBeWordAt(text, index, kLabelFirstWords[std::countr_zero(words)])) {
      return true;
    }
  }
  return false;
}

}  // namespace

LabelStartFilter::LabelStartFilter() {
  UErrorCode status = U_ZERO_ERROR;
  // Everything that takes part in case mapping, folded the way ICU's
  // case-insensitive match folds it.
  const icu::UnicodeSet foldable(icu::UnicodeString(u"[[:Case_Sensitive:]-[:ASCII:]]"), status);
  if (U_FAILURE(status)) {
    anyNonAsciiMayFold_ = true;
    return;
  }
  for (int32_t range = 0; range < foldable.getRangeCount(); ++range) {
    for (UChar32 c = foldable.getRangeStart(range); c <= foldable.getRangeEnd(range); ++c) {
      icu::UnicodeString folded(c);
      if (hasAsciiLetter(folded.foldCase())) {
        foldsToAsciiLetter_.add(c);
      }
    }
  }
  foldsToAsciiLetter_.freeze();
}

std::size_t LabelStartFilter::next(std::u16string_view text, std::size_t from) const {
  for (; from + 1 < text.size(); ++from) {
    const char16_t first = text[from];
    const char16_t second = text[from + 1];
    if ((first | second) < 0x80) {
      const unsigned words = kWordsByFirstLetter[first] & kWordsBySecondLetter[second];
      if (words != 0 && mayBeOneOf(words, text, from)) {
        return from;
      }
    } else if (first < 0x80 ? kWordsByFirstLetter[first] != 0 : mayFoldToAsciiLetter(text, from)) {
      return from;
    }
  }
  // A match is never a single character.
  return text.size();
}

bool LabelStartFilter::mayFoldToAsciiLetter(std::u16string_view text, std::size_t index) const {
  UChar32 c = 0;
  U16_NEXT(text, index, text.size(), c);
  return anyNonAsciiMayFold_ || foldsToAsciiLetter_.contains(c);
}

}  // namespace harborkeeper::internal
