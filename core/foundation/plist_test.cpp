#include "core/foundation/plist.h"

#include <chrono>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace harborkeeper::plist {
namespace {

using namespace std::chrono;
using namespace std::chrono_literals;

constexpr std::string_view kCorrupted = "The data couldn’t be read because it isn’t in the correct format.";
constexpr std::string_view kMissing = "The data couldn’t be read because it is missing.";
constexpr std::string_view kInvalidValue =
    "The data couldn’t be written because it isn’t in the correct format.";

std::string asText(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

Date at(year_month_day day, microseconds offset = 0us) { return Date(sys_days(day) + offset); }

std::string xmlDocument(std::string_view body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
         "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
         "<plist version=\"1.0\">\n" +
         std::string(body) + "</plist>\n";
}

std::string bigEndian(std::uint64_t value, unsigned size) {
  std::string out;
  for (unsigned i = size; i-- > 0;) out.push_back(static_cast<char>(value >> (8 * i)));
  return out;
}

// A binary property list from raw objects (references inside them encoded by
// the caller with `referenceSize` bytes); object 0 is the root.
std::string binaryPlist(const std::vector<std::string>& objects, unsigned referenceSize = 1) {
  std::string out = "bplist00";
  std::string table;
  for (const std::string& object : objects) {
    table += bigEndian(out.size(), 4);
    out += object;
  }
  const std::uint64_t tableOffset = out.size();
  out += table;
  out += std::string(6, '\0') + '\x04' + static_cast<char>(referenceSize);
  out += bigEndian(objects.size(), 8) + bigEndian(0, 8) + bigEndian(tableOffset, 8);
  return out;
}

std::string nestedArraysXml(int depth) {
  std::string body;
  for (int i = 0; i < depth; ++i) body += "<array>";
  for (int i = 0; i < depth; ++i) body += "</array>";
  return xmlDocument(body);
}

// Each array holds the next one; the last is empty.
std::string nestedArraysBinary(std::uint64_t depth) {
  std::vector<std::string> objects;
  for (std::uint64_t i = 0; i + 1 < depth; ++i) objects.push_back("\xA1" + bigEndian(i + 1, 4));
  objects.emplace_back("\xA0");
  return binaryPlist(objects, 4);
}

Value nestedArrays(int depth) {
  Value value = Array{};
  for (int i = 1; i < depth; ++i) value = Array{value};
  return value;
}

void expectDecodeError(std::string_view bytes, std::string_view text) {
  try {
    decode(bytes);
    ADD_FAILURE() << "decoded without error";
  } catch (const DecodeError& error) {
    EXPECT_EQ(error.what(), text);
  }
}

struct RoundTripCase {
  std::string name;
  Value value;
};

class RoundTripTest : public testing::TestWithParam<std::tuple<RoundTripCase, Format>> {};

TEST_P(RoundTripTest, DecodesWhatItEncoded) {
  const auto& [testCase, format] = GetParam();
  EXPECT_EQ(decode(encode(testCase.value, format)), testCase.value);
}

Bytes allBytes() {
  Bytes bytes;
  for (int i = 0; i < 256; ++i) bytes.push_back(static_cast<std::uint8_t>(i));
  return bytes;
}

INSTANTIATE_TEST_SUITE_P(
    EveryType, RoundTripTest,
    testing::Combine(
        testing::Values(
            RoundTripCase{"EmptyString", ""}, RoundTripCase{"Unicode", "Grüße, 東京 😀 \u2019"},
            RoundTripCase{"MarkupCharacters", "<key>a & b</key> ]]> \"'"},
            RoundTripCase{"Whitespace", "  line\n\ttab\r\n  "}, RoundTripCase{"True", true},
            RoundTripCase{"False", false}, RoundTripCase{"Zero", 0}, RoundTripCase{"MinusOne", -1},
            RoundTripCase{"Int64Min", std::numeric_limits<std::int64_t>::min()},
            RoundTripCase{"Int64Max", std::numeric_limits<std::int64_t>::max()},
            RoundTripCase{"Fraction", 0.1}, RoundTripCase{"Tiny", -2.5e-300}, RoundTripCase{"Huge", 1.5e300},
            RoundTripCase{"Infinity", std::numeric_limits<double>::infinity()},
            RoundTripCase{"DateAtReference", at(2001y / 1 / 1)},
            RoundTripCase{"DateBefore1970", at(1969y / 7 / 20, 20h + 17min + 40s)},
            RoundTripCase{"DateAfter2069", at(2150y / 3 / 1, 12h)}, RoundTripCase{"EmptyData", Bytes{}},
            RoundTripCase{"AllBytes", allBytes()}, RoundTripCase{"EmptyArray", Array{}},
            RoundTripCase{"EmptyDictionary", Dictionary{}},
            RoundTripCase{"Nested", Dictionary{{"list", Array{1, "two", Array{Dictionary{{"deep", true}}},
                                                              Bytes{1, 2}}},
                                               {"ünïcødé key", Dictionary{}},
                                               {"when", at(2026y / 11 / 15, 16h + 20min)}}}),
        testing::Values(Format::xml, Format::binary)),
    [](const auto& info) {
      return std::get<0>(info.param).name + (std::get<1>(info.param) == Format::xml ? "Xml" : "Binary");
    });

// Binary keeps microseconds; XML keeps whole seconds, dropping toward the
// earlier second (also before 2001 and 1970, where libplist's own date reader
// loses the sign of the fraction).
TEST(PlistDateTest, PrecisionPerFormat) {
  const struct {
    Date date;
    Date wholeSeconds;
  } cases[] = {
      {at(2026y / 11 / 15, 16h + 20min + 123456us), at(2026y / 11 / 15, 16h + 20min)},
      {at(2001y / 1 / 1, 999999us), at(2001y / 1 / 1)},
      {at(2000y / 12 / 31, 23h + 59min + 59s + 750000us), at(2000y / 12 / 31, 23h + 59min + 59s)},
      {at(1969y / 12 / 31, 23h + 59min + 59s + 500000us), at(1969y / 12 / 31, 23h + 59min + 59s)},
      {at(1900y / 1 / 1, 1us), at(1900y / 1 / 1)},
      {at(2100y / 6 / 30, 23h + 59min + 59s + 999999us), at(2100y / 6 / 30, 23h + 59min + 59s)},
  };
  for (const auto& testCase : cases) {
    EXPECT_EQ(decode(encode(testCase.date, Format::binary)), Value(testCase.date));
    EXPECT_EQ(decode(encode(testCase.date, Format::xml)), Value(testCase.wholeSeconds));
  }
}

TEST(PlistDateTest, ReadsReferenceSecondsExactly) {
  // -0.25 s: 2000-12-31T23:59:59.75Z as a binary date object (0x33 + big-endian double).
  double seconds = -0.25;
  std::uint64_t bits = 0;
  std::memcpy(&bits, &seconds, sizeof bits);
  EXPECT_EQ(decode(binaryPlist({"\x33" + bigEndian(bits, 8)})),
            Value(at(2000y / 12 / 31, 23h + 59min + 59s + 750000us)));
  EXPECT_EQ(decode(xmlDocument("<date>1970-01-01T00:00:00Z</date>\n")), Value(Date{}));
}

TEST(PlistXmlTest, RepeatedKeyKeepsLastValue) {
  EXPECT_EQ(decode(xmlDocument("<dict><key>a</key><true/><key>a</key><false/></dict>")),
            Value(Dictionary{{"a", false}}));
}

TEST(PlistIntegerTest, EightByteIsSignedSixteenByteAboveInt64IsRefused) {
  EXPECT_EQ(decode(binaryPlist({"\x13" + bigEndian(~std::uint64_t{0}, 8)})), Value(-1));
  expectDecodeError(binaryPlist({"\x14" + bigEndian(0, 8) + bigEndian(~std::uint64_t{0}, 8)}), kCorrupted);
}

TEST(PlistXmlTest, WritesAppleStyleDocument) {
  const Dictionary dictionary{{"b", Array{true, 2}}, {"a", "x&y"}, {"c", Dictionary{}}};
  EXPECT_EQ(asText(encode(dictionary, Format::xml)),
            xmlDocument("<dict>\n\t<key>a</key>\n\t<string>x&amp;y</string>\n\t<key>b</key>\n\t<array>\n"
                        "\t\t<true/>\n\t\t<integer>2</integer>\n\t</array>\n\t<key>c</key>\n\t<dict/>\n"
                        "</dict>\n"));
}

TEST(PlistXmlTest, ReadsHandWrittenDocument) {
  const std::string document = xmlDocument(
      "<!-- written by hand -->\n<dict>\n  <key>name</key> <string>caf&#xE9; &lt;&#65;&gt;</string>\n"
      "  <key>count</key><integer> -42 </integer>\n  <key>ratio</key><real>2.5e1</real>\n"
      "  <key>when</key><date>2026-11-15T16:20:00Z</date>\n  <key>blob</key><data>\n  AAEC\n  /w==\n</data>\n"
      "  <key>note</key><string><![CDATA[<raw>]]></string>\n  <key>empty</key><string/>\n"
      "  <key>flags</key><array><true/><false/></array>\n</dict>\n");
  const Value expected = Dictionary{{"name", "café <A>"},
                                    {"count", -42},
                                    {"ratio", 25.0},
                                    {"when", at(2026y / 11 / 15, 16h + 20min)},
                                    {"blob", Bytes{0, 1, 2, 0xFF}},
                                    {"note", "<raw>"},
                                    {"empty", ""},
                                    {"flags", Array{true, false}}};
  EXPECT_EQ(decode(document), expected);
}

TEST(PlistDecodeTest, RefusesMalformedInput) {
  const std::string valid = asText(encode(Dictionary{{"key", "value"}, {"n", 1}}, Format::binary));
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"empty", ""},
      {"garbage", "hello, world"},
      {"magic only", "bplist00"},
      {"truncated binary", valid.substr(0, valid.size() - 1)},
      {"binary cut in half", valid.substr(0, valid.size() / 2)},
      {"unclosed", "<plist version=\"1.0\"><array><true/>"},
      {"no plist root", "<true/>"},
      {"empty plist", "<plist/>"},
      {"two values", xmlDocument("<true/><false/>")},
      {"unknown entity", xmlDocument("<string>&foo;</string>")},
      {"internal subset",
       "<?xml version=\"1.0\"?><!DOCTYPE plist [<!ENTITY a \"aaaa\">]><plist><string>&a;</string></plist>"},
      {"NUL character reference", xmlDocument("<string>a&#0;b</string>")},
      {"integer text", xmlDocument("<integer>abc</integer>")},
      {"integer overflow", xmlDocument("<integer>9223372036854775808</integer>")},
      {"hex integer", xmlDocument("<integer>0x10</integer>")},
      {"date text", xmlDocument("<date>garbage</date>")},
      {"impossible date", xmlDocument("<date>2024-02-30T00:00:00Z</date>")},
      {"real text", xmlDocument("<real>1.5abc</real>")},
      {"bad base64", xmlDocument("<data>A</data>")},
      {"text in boolean", xmlDocument("<true>x</true>")},
      {"key outside dictionary", xmlDocument("<key>a</key>")},
      {"key without value", xmlDocument("<dict><key>a</key></dict>")},
      {"value without key", xmlDocument("<dict><string>a</string><true/></dict>")},
      {"quoted markup in attribute", "<plist version='>'><true/></plist>"},
      {"mismatched tags", xmlDocument("<array></dict>")},
      {"nested plist", xmlDocument("<array><plist><true/></plist></array>")},
      {"invalid UTF-8", xmlDocument("<string>\xC3\x28</string>")},
      {"binary UID", binaryPlist({std::string("\x80\x01", 2)})},
      {"binary set", binaryPlist({std::string("\xC0", 1)})},
      {"binary null", binaryPlist({std::string("\x00", 1)})},
      {"binary string with NUL", binaryPlist({std::string("\x53"
                                                          "a\0b",
                                                          4)})},
      {"binary non-string key", binaryPlist({"\xD1\x01\x02", "\x10\x01", "\x09"})},
      {"binary date out of range", binaryPlist({"\x33" + bigEndian(0x7E37E43C8800759CULL, 8)})},  // 1e300 s
      {"binary cycle", binaryPlist({"\xA1\x01", "\xA1\x00"})},
      {"binary reference out of range", binaryPlist({"\xA1\x05"})},
      {"binary string past end", binaryPlist({"\x5F\x10\x7F"
                                              "abc"})},
  };
  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    expectDecodeError(bytes, kCorrupted);
  }
}

TEST(PlistDecodeTest, RefusesExpansionOfSharedObjects) {
  // 40 arrays, each holding the next one twice: 2^40 values once expanded.
  std::vector<std::string> objects;
  for (std::uint64_t i = 1; i < 40; ++i) objects.push_back("\xA2" + bigEndian(i, 1) + bigEndian(i, 1));
  objects.emplace_back("\xA0");
  expectDecodeError(binaryPlist(objects), kCorrupted);
  // Sharing itself is fine: one string used as two keys' values.
  EXPECT_EQ(decode(binaryPlist({"\xD2\x01\x02\x03\x03", "\x51x", "\x51y", "\x51v"})),
            Value(Dictionary{{"x", "v"}, {"y", "v"}}));
}

TEST(PlistDepthTest, SixtyFourLevelsPassSixtyFiveDoNot) {
  EXPECT_EQ(decode(nestedArraysXml(64)), nestedArrays(64));
  EXPECT_EQ(decode(nestedArraysBinary(64)), nestedArrays(64));
  EXPECT_EQ(decode(encode(nestedArrays(64), Format::binary)), nestedArrays(64));
  for (const int depth : {65, 100000}) {
    SCOPED_TRACE(depth);
    expectDecodeError(nestedArraysXml(depth), kCorrupted);
    expectDecodeError(nestedArraysBinary(depth), kCorrupted);
  }
  EXPECT_THAT([] { encode(nestedArrays(65), Format::xml); },
              testing::ThrowsMessage<EncodeError>(testing::StrEq(std::string(kInvalidValue))));
}

TEST(PlistEncodeTest, RefusesTextNoPropertyListCarries) {
  const std::vector<Value> values = {std::string("a\0b", 3), "\xFF\xFE",
                                     Dictionary{{std::string("k\0", 2), 1}}, Array{"\xC0\x80"}, Date::max()};
  for (const Value& value : values) {
    for (const Format format : {Format::xml, Format::binary}) {
      EXPECT_THAT([&] { encode(value, format); },
                  testing::ThrowsMessage<EncodeError>(testing::StrEq(std::string(kInvalidValue))));
    }
  }
}

TEST(PlistAccessTest, MissingKeyAndWrongTypeAreDistinct) {
  const Dictionary dictionary{{"text", "t"}, {"flag", true}, {"number", 7}, {"list", Array{}}};
  EXPECT_EQ(requireString(dictionary, "text"), "t");
  EXPECT_TRUE(requireBool(dictionary, "flag"));
  EXPECT_EQ(requireInteger(dictionary, "number"), 7);
  EXPECT_TRUE(requireArray(dictionary, "list").empty());
  EXPECT_EQ(optionalString(dictionary, "absent"), std::nullopt);
  EXPECT_EQ(optionalString(dictionary, "text"), "t");
  EXPECT_EQ(find(dictionary, "absent"), nullptr);

  const std::vector<std::pair<std::function<void()>, std::string_view>> cases = {
      {[&] { requireString(dictionary, "absent"); }, kMissing},
      {[&] { requireDate(dictionary, "absent"); }, kMissing},
      {[&] { requireString(dictionary, "flag"); }, kCorrupted},
      {[&] { requireBool(dictionary, "text"); }, kCorrupted},
      {[&] { requireInteger(dictionary, "text"); }, kCorrupted},
      {[&] { requireDate(dictionary, "number"); }, kCorrupted},
      {[&] { requireData(dictionary, "list"); }, kCorrupted},
      {[&] { requireArray(dictionary, "flag"); }, kCorrupted},
      {[&] { optionalString(dictionary, "number"); }, kCorrupted},
      {[] { asDictionary(Value(Array{})); }, kCorrupted},
  };
  for (const auto& [call, text] : cases) {
    EXPECT_THAT(call, testing::ThrowsMessage<DecodeError>(testing::StrEq(std::string(text))));
  }
}

}  // namespace
}  // namespace harborkeeper::plist
