#include "core/foundation/text.h"

#include <array>
#include <string>

#include <gtest/gtest.h>

namespace harborkeeper::text {
namespace {

TEST(TextTest, TrimmedStripsUnicodeWhiteSpaceAtBothEndsOnly) {
  // Zero-width space and BOM are not White_Space; invalid bytes, even a
  // truncated sequence, are kept whole.
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {" \t\n\r\v\f ", ""},
      {"\u00A0\u3000\u2028\u0085x\u2029\u202F\u205F\u2000\u200A\u1680", "x"},
      {" \u200Ba b\tc\uFEFF \n", "\u200Ba b\tc\uFEFF"},
      {" \xFF a \xE2\x80 ", "\xFF a \xE2\x80"}};
  for (const auto& [input, expected] : cases) {
    SCOPED_TRACE(input);
    EXPECT_EQ(trimmed(input), expected);
    EXPECT_EQ(isWhitespaceOnly(input), expected.empty());
  }
}

TEST(TextTest, LowercasedUsesFullRootMapping) {
  EXPECT_EQ(lowercased("İ"), "i\u0307");            // root, not Turkish
  EXPECT_EQ(lowercased("ΟΔΟΣ ΟΔΟΣ"), "οδος οδος");  // final sigma depends on context
  EXPECT_EQ(lowercased("A\xFF"), "a\uFFFD");
}

TEST(TextTest, CaseInsensitiveMatchesFullFoldingOnCodePointBoundaries) {
  // Matches do not overlap and the replacement is not rescanned; folding is
  // full both ways but a match never ends inside a folded code point ("s" in
  // "ß"); the text between matches is kept byte for byte.
  const std::array<std::string, 4> cases[] = {{"abc", "", "x", "abc"},
                                              {"Bob bobob", "bob", "bobby", "bobby bobbyob"},
                                              {"strasse Straße", "STRAßE", "x", "x x"},
                                              {"ßs", "s", "x", "ßx"},
                                              {"İ-", "i\u0307", "x", "x-"},
                                              {"5 \u212A", "k", "K", "5 K"},
                                              {"ΟΔΟΣ οδος οδοσ", "οδοσ", "x", "x x x"},
                                              {"\xFFé-HOST-ü\xC3", "host", "h", "\xFFé-h-ü\xC3"}};
  for (const auto& [text, target, replacement, expected] : cases) {
    SCOPED_TRACE(testing::Message() << text << " / " << target);
    EXPECT_EQ(replacingCaseInsensitive(text, target, replacement), expected);
    // No case replaces a match by identical text, so a change means a match.
    EXPECT_EQ(containsCaseInsensitive(text, target), expected != text);
  }
}

TEST(TextTest, BytewiseReplacementDoesNotOverlapOrRescan) {
  EXPECT_EQ(replacingOccurrences("Abc abc", "abc", "x"), "Abc x");
  EXPECT_EQ(replacingOccurrences("aaa", "aa", "a"), "aa");
  EXPECT_EQ(replacingOccurrences("xx", "x", "xx"), "xxxx");
  EXPECT_EQ(replacingOccurrences("abc", "", "x"), "abc");
}

TEST(TextTest, UserPerceivedLengthCountsGraphemeClusters) {
  // Combining mark, CR LF, a flag; a skin-toned thumb and a family.
  const std::pair<std::string, std::size_t> cases[] = {
      {"", 0},
      {"a\xFF-", 3},
      {"e\u0301\r\n\U0001F1E9\U0001F1EA", 3},
      {"\U0001F44D\U0001F3FD\U0001F468\u200D\U0001F469\u200D\U0001F467", 2}};
  for (const auto& [text, length] : cases) EXPECT_EQ(userPerceivedLength(text), length) << text;
}

TEST(TextTest, RepairedUtf8ReplacesEachMaximalSubpart) {
  EXPECT_EQ(repairedUtf8("grüße \U0001F600"), "grüße \U0001F600");
  // Invalid lead bytes and lone continuation bytes.
  EXPECT_EQ(repairedUtf8("a\xFF-\xC0\xAF\x80"), "a\uFFFD-\uFFFD\uFFFD\uFFFD");
  // A truncated sequence is one subpart, also at the end.
  EXPECT_EQ(repairedUtf8("\xE2\x82x\xF0\x9F\x98"), "\uFFFDx\uFFFD");
  // A surrogate and a code point above U+10FFFF: one per byte.
  EXPECT_EQ(repairedUtf8("\xED\xA0\x80\xF4\x90\x80\x80"), "\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD");
}

}  // namespace
}  // namespace harborkeeper::text
