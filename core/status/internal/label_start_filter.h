#pragma once

#include <unicode/uniset.h>

#include <array>
#include <cstddef>
#include <string_view>

namespace harborkeeper::internal {

// Every label the redactor looks for begins with one of these words.
inline constexpr std::array<std::string_view, 8> kLabelFirstWords = {
    "filevault", "recovery", "ssh", "private", "network", "api", "token", "secret"};

// Says where a label may begin, so that ICU is asked to match only there
// instead of at every letter of ordinary text. ASCII compares by case; a few
// other characters fold to ASCII letters ("ſ" to "s", "ﬁ" to "fi", the Kelvin
// sign to "k", "ẖ" to "h" and a combining mark), and wherever one of those
// turns up ICU decides. Immutable once built, so one may serve every thread.
class LabelStartFilter final {
 public:
  LabelStartFilter();

  // The first index at or after `from` where a label may begin, or the end.
  [[nodiscard]] std::size_t next(std::u16string_view text, std::size_t from) const;

 private:
  [[nodiscard]] bool mayFoldToAsciiLetter(std::u16string_view text, std::size_t index) const;

  icu::UnicodeSet foldsToAsciiLetter_;
  bool anyNonAsciiMayFold_ = false;
};

}  // namespace harborkeeper::internal
