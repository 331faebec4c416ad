#include "core/foundation/text.h"

#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "core/foundation/bytes.h"

namespace harborkeeper::text {
namespace {

struct TextCase {
  const char* name;
  std::string input;
  std::string expected;
};

void PrintTo(const TextCase& c, std::ostream* out) { *out << c.name; }

class TrimmedTest : public testing::TestWithParam<TextCase> {};

TEST_P(TrimmedTest, StripsUnicodeWhiteSpaceAtBothEndsOnly) {
  EXPECT_EQ(trimmed(GetParam().input), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, TrimmedTest,
    testing::Values(TextCase{"Empty", "", ""}, TextCase{"OnlySpaces", " \t\n\r\v\f ", ""},
                    TextCase{"InnerSpacesKept", "  a b\tc \n", "a b\tc"},
                    TextCase{"NoBreakSpace", "\u00A0name\u00A0", "name"},
                    TextCase{"IdeographicSpace", "\u3000名前\u3000", "名前"},
                    TextCase{"LineAndParagraphSeparators", "\u2028x\u2029", "x"},
                    TextCase{"NextLine", "\u0085x\u0085", "x"},
                    TextCase{"NarrowNoBreakAndMathSpace", "\u202F\u205Fx\u2000\u200A\u1680", "x"},
                    // Zero-width space and BOM are not White_Space.
                    TextCase{"ZeroWidthSpaceKept", "\u200Bx\uFEFF", "\u200Bx\uFEFF"},
                    TextCase{"InvalidBytesKept", " \xFF a \xC3 ", "\xFF a \xC3"},
                    TextCase{"TruncatedSequenceAtEnd", "x \xE2\x80", "x \xE2\x80"},
                    TextCase{"OnlyInvalid", "\x80", "\x80"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(TextTest, IsWhitespaceOnly) {
  EXPECT_TRUE(isWhitespaceOnly(""));
  EXPECT_TRUE(isWhitespaceOnly(" \u3000\n\u00A0"));
  EXPECT_FALSE(isWhitespaceOnly(" x "));
  EXPECT_FALSE(isWhitespaceOnly(" \xFF "));
}

TEST(TextTest, LowercasedUsesFullRootMapping) {
  EXPECT_EQ(lowercased("ÄBC Straße"), "äbc straße");
  // Root locale: dotted capital I becomes "i" plus a combining dot, not Turkish "i".
  EXPECT_EQ(lowercased("İ"), "i\u0307");
  // Final sigma depends on context.
  EXPECT_EQ(lowercased("ΟΔΟΣ ΟΔΟΣ"), "οδος οδος");
  EXPECT_EQ(lowercased("A\xFF"), "a\uFFFD");
}

struct ReplaceCase {
  const char* name;
  std::string text;
  std::string target;
  std::string replacement;
  std::string expected;
};

void PrintTo(const ReplaceCase& c, std::ostream* out) { *out << c.name; }

class ReplacingCaseInsensitiveTest : public testing::TestWithParam<ReplaceCase> {};

TEST_P(ReplacingCaseInsensitiveTest, Replaces) {
  const ReplaceCase& c = GetParam();
  EXPECT_EQ(replacingCaseInsensitive(c.text, c.target, c.replacement), c.expected);
  // No case replaces a match by identical text, so a change means a match.
  EXPECT_EQ(containsCaseInsensitive(c.text, c.target), c.expected != c.text);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ReplacingCaseInsensitiveTest,
    testing::Values(ReplaceCase{"MixedCase", "Alice saw ALICE and aLiCe", "alice", "[u]",
                                "[u] saw [u] and [u]"},
                    ReplaceCase{"EmptyTargetUnchanged", "abc", "", "x", "abc"},
                    ReplaceCase{"NotFound", "abc", "d", "x", "abc"},
                    ReplaceCase{"ReplacementContainsTarget", "bob Bob", "bob", "bobby", "bobby bobby"},
                    ReplaceCase{"NonOverlappingLeftToRight", "aaaa", "aa", "b", "bb"},
                    ReplaceCase{"OddRunLeavesRest", "AAA", "aa", "b", "bA"},
                    ReplaceCase{"SharpSMatchesDoubleS", "STRASSE", "straße", "x", "x"},
                    ReplaceCase{"DoubleSMatchesSharpS", "Straße", "STRASSE", "x", "x"},
                    ReplaceCase{"HalfOfSharpSNotMatched", "ß", "s", "x", "ß"},
                    ReplaceCase{"DottedCapitalI", "İstanbul", "i\u0307stanbul", "x", "x"},
                    ReplaceCase{"DottedCapitalINotPlainI", "İ", "i", "x", "İ"},
                    ReplaceCase{"GreekSigmaForms", "ΟΔΟΣ οδος οδοσ", "οδοσ", "x", "x x x"},
                    ReplaceCase{"KelvinSign", "5 \u212A", "k", "kelvin", "5 kelvin"},
                    ReplaceCase{"InvalidBytesAroundKept",
                                "\xFF"
                                "Host\xC3",
                                "host", "[h]", "\xFF[h]\xC3"},
                    ReplaceCase{"MultiByteKeptExactly", "é-HOST-ü", "host", "h", "é-h-ü"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(TextTest, ContainsCaseInsensitive) {
  EXPECT_TRUE(containsCaseInsensitive("Hello World", "WORLD"));
  EXPECT_TRUE(containsCaseInsensitive("maße", "MASSE"));
  EXPECT_FALSE(containsCaseInsensitive("maße", "mas"));
  EXPECT_FALSE(containsCaseInsensitive("abc", ""));
  EXPECT_FALSE(containsCaseInsensitive("", "a"));
  // A match found late after a rejected partial match at a split fold.
  EXPECT_TRUE(containsCaseInsensitive("ßs", "s"));
}

TEST(TextTest, ReplacingOccurrencesIsExact) {
  EXPECT_EQ(replacingOccurrences("a.b.c", ".", "::"), "a::b::c");
  EXPECT_EQ(replacingOccurrences("Abc abc", "abc", "x"), "Abc x");
  EXPECT_EQ(replacingOccurrences("aaa", "aa", "a"), "aa");
  EXPECT_EQ(replacingOccurrences("xx", "x", "xx"), "xxxx");
  EXPECT_EQ(replacingOccurrences("abc", "", "x"), "abc");
  EXPECT_EQ(replacingOccurrences("", "a", "x"), "");
}

TEST(TextTest, UserPerceivedLengthCountsGraphemeClusters) {
  const struct {
    std::string text;
    std::size_t expected;
  } cases[] = {
      {"", 0},
      {"abc", 3},
      {"e\u0301", 1},
      {"\U0001F1E9\U0001F1EA", 1},                                        // flag
      {"\U0001F468\u200D\U0001F469\u200D\U0001F467\u200D\U0001F466", 1},  // family
      {"\U0001F44D\U0001F3FD", 1},                                        // skin tone
      {"\r\n", 1},
      {"한국어", 3},
      {"a\xFF"
       "b",
       3},
  };
  for (const auto& c : cases) EXPECT_EQ(userPerceivedLength(c.text), c.expected) << c.text;
}

TEST(TextTest, RepairedUtf8ReplacesEachMaximalSubpart) {
  const struct {
    std::string input;
    std::string expected;
  } cases[] = {
      {"plain ascii", "plain ascii"},
      {"grüße \U0001F600", "grüße \U0001F600"},
      {"a\xFF"
       "b",
       "a\uFFFD"
       "b"},
      {"\xC3", "\uFFFD"},
      {"\xE2\x82", "\uFFFD"},                            // truncated three-byte sequence: one subpart
      {"\xF0\x9F\x98", "\uFFFD"},                        // truncated four-byte sequence
      {"\xC0\xAF", "\uFFFD\uFFFD"},                      // overlong: lead byte never valid
      {"\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},            // surrogate
      {"\xF4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},  // above U+10FFFF
      {"\xE2\x82x", "\uFFFDx"},
      {"\x80\x80", "\uFFFD\uFFFD"},
  };
  for (const auto& c : cases) EXPECT_EQ(repairedUtf8(c.input), c.expected) << c.input;
}

TEST(TextTest, StartsWith) {
  EXPECT_TRUE(startsWith("-oOption", "-"));
  EXPECT_TRUE(startsWith("abc", ""));
  EXPECT_FALSE(startsWith("ab", "abc"));
}

TEST(BytesTest, SecureWipeEmptiesAndBytesRoundTrip) {
  std::string secret = "correct horse battery staple";
  secureWipe(secret);
  EXPECT_TRUE(secret.empty());
  Bytes key = toBytes(std::string_view("k\0y\xFF", 4));
  EXPECT_EQ(key, (Bytes{'k', 0, 'y', 0xFF}));
  EXPECT_EQ(toString(key), std::string("k\0y\xFF", 4));
  secureWipe(key);
  EXPECT_TRUE(key.empty());
}

}  // namespace
}  // namespace harborkeeper::text
