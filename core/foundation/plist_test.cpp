#include "core/foundation/plist.h"

#include <chrono>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/foundation/text.h"

namespace harborkeeper::plist {
namespace {

using namespace std::chrono;
using namespace std::string_literals;

constexpr char kHeader[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist version=\"1.0\">\n";

Date at(year_month_day day, microseconds offset = 0us) { return Date(sys_days(day) + offset); }
std::string xml(std::string_view body) { return kHeader + std::string(body) + "</plist>\n"; }

std::string bigEndian(std::uint64_t value, unsigned size) {
  return size == 0 ? "" : bigEndian(value >> 8, size - 1) + static_cast<char>(value);
}

// A binary property list of raw objects, object 0 the root; the caller encodes
// references inside them with `referenceSize` bytes.
std::string binaryPlist(const std::vector<std::string>& objects, unsigned referenceSize = 1) {
  std::string out = "bplist00";
  std::string table;
  for (const std::string& object : objects) table += bigEndian(out.size(), 4), out += object;
  return out + table + std::string(6, '\0') + '\x04' + static_cast<char>(referenceSize) +
         bigEndian(objects.size(), 8) + bigEndian(0, 8) + bigEndian(out.size(), 8);
}

// `depth` nested arrays, each holding the next, as XML or binary.
std::string nestedArrays(std::uint64_t depth, Format format) {
  std::vector<std::string> objects(depth, "\xA0");
  for (std::uint64_t i = 1; i < depth; ++i) objects[i - 1] = "\xA1" + bigEndian(i, 4);
  if (format == Format::binary) return binaryPlist(objects, 4);
  std::string open;
  for (std::uint64_t i = 0; i < depth; ++i) open += "<array>";
  return xml(open + text::replacingOccurrences(open, "<", "</"));
}

TEST(PlistTest, RoundTripsEveryTypeBinaryExactlyXmlWithWholeSecondDates) {
  // Beyond the types and limits the seed corpus round-trips: text that XML escapes or might
  // trim, a real that prints inexactly, nested containers.
  for (const Value& value : std::initializer_list<Value>{
           "", "<key>a & b</key> ]]> \"'", "  line\n\ttab\r\n  ", true, 0.1, 1.5e300,
           Dictionary{{"ünïcødé", Array{1, Dictionary{{"deep", Bytes{0, '<', '&', 0x80, 0xFF}}}}}},
           // Dates around the 2001 reference date and 1970 (where libplist loses the
           // sign of the fraction), and past 2069 (beyond its 32-bit seconds).
           at(2026y / 11 / 15, 123456us), at(2001y / 1 / 1), at(2001y / 1 / 1, -250ms),
           at(1970y / 1 / 1, -500ms), at(1900y / 1 / 1, 1us), at(2150y / 1 / 1, -1us)}) {
    const Date* date = value.get<Date>();
    EXPECT_EQ(decode(encode(value, Format::binary)), value);
    EXPECT_EQ(decode(encode(value, Format::xml)), date ? Value(Date(floor<seconds>(*date))) : value);
  }
  // -0.25 s from the reference date, written by another program.
  EXPECT_EQ(decode(binaryPlist({'\x33' + bigEndian(0xBFD0000000000000, 8)})), at(2001y / 1 / 1, -250ms));
}

TEST(PlistTest, WritesTheUsualXmlDocumentAndReadsHandWrittenXml) {
  EXPECT_EQ(toString(encode(Dictionary{{"b", Array{2}}, {"a", "x&y"}, {"c", Dictionary{}}}, Format::xml)),
            xml("<dict>\n\t<key>a</key>\n\t<string>x&amp;y</string>\n\t<key>b</key>\n\t<array>\n"
                "\t\t<integer>2</integer>\n\t</array>\n\t<key>c</key>\n\t<dict/>\n</dict>\n"));
  // Read: what hand-written XML has beyond the seed corpus. A repeated key keeps its last value.
  EXPECT_EQ(decode(xml("<!-- by hand --><array> <integer> -42 </integer>\n<real>2.5e1</real><string/>"
                       "<string><![CDATA[<raw>]]></string><dict><key>a</key><true/><key>a</key><false/>"
                       "</dict></array>")),
            Value(Array{-42, 25.0, "", "<raw>", Dictionary{{"a", false}}}));
}

TEST(PlistTest, RefusesMalformedAndHostileInput) {
  const auto corrupted = testing::ThrowsMessage<DecodeError>(testing::StrEq(DecodeError::corrupted().what()));
  const std::string valid = toString(encode(Dictionary{{"key", "value"}, {"n", 1}}, Format::binary));
  std::vector<std::string> doubling(40, "\xA0");  // each array holds the next twice: 2^40 values expanded
  for (int i = 0; i < 39; ++i) doubling[i] = "\xA2" + std::string(2, static_cast<char>(i + 1));
  // Truncated; XML: shape, entities, leaf text, dictionary structure, markup
  // tricks, UTF-8; binary: UID, set, a NUL in a string, a non-string key,
  // a date 1e300 s away, an unsigned 16-byte integer, a cycle, a reference and a
  // length past the end; beyond 64 levels, and shared objects that would expand
  // without bound.
  for (const std::string& bytes : std::initializer_list<std::string>{
           "", "bplist00", valid.substr(0, valid.size() - 1),
           // XML
           "<plist version=\"1.0\"><array><true/>", "<true/>", xml("<true/><false/>"),
           xml("<string>&foo;</string>"), xml("<string>a&#0;b</string>"),
           "<!DOCTYPE plist [<!ENTITY a \"aaaa\">]><plist><string>&a;</string></plist>",
           xml("<integer>9223372036854775808</integer>"), xml("<date>2024-02-30T00:00:00Z</date>"),
           xml("<real>1.5abc</real>"), xml("<data>A</data>"), xml("<dict><key>a</key></dict>"),
           "<plist version='>'><true/></plist>", xml("<array></dict>"), xml("<string>\xC3\x28</string>"),
           // Binary
           binaryPlist({"\x80\x01"s}), binaryPlist({"\xC0"}), binaryPlist({"\x53\x61\x00\x62"s}),
           binaryPlist({"\xD1\x01\x02", "\x10\x01", "\x09"}),
           binaryPlist({'\x33' + bigEndian(0x7E37E43C8800759C, 8)}),
           binaryPlist({"\x14" + bigEndian(0, 8) + bigEndian(~std::uint64_t{0}, 8)}),
           binaryPlist({"\xA1\x01", "\xA1\x00"s}), binaryPlist({"\xA1\x05"}), binaryPlist({"\x5F\x10\x7F"}),
           // Depth and expansion
           nestedArrays(65, Format::xml), nestedArrays(100000, Format::xml), nestedArrays(65, Format::binary),
           nestedArrays(100000, Format::binary), binaryPlist(doubling)}) {
    EXPECT_THAT([&] { decode(bytes); }, corrupted) << bytes.substr(0, 60);
  }
}

TEST(PlistTest, EncodesAndDecodesUpToTheLimits) {
  Value deepest = Array{};
  for (int depth = 1; depth < 64; ++depth) deepest = Array{deepest};
  for (const Format format : {Format::xml, Format::binary}) {
    EXPECT_TRUE(decode(nestedArrays(64, format)) == deepest && decode(encode(deepest, format)) == deepest);
  }
  // One string object as two keys' value.
  EXPECT_EQ(decode(binaryPlist({"\xD2\x01\x02\x03\x03", "\x51x", "\x51y", "\x51v"})),
            Value(Dictionary{{"x", "v"}, {"y", "v"}}));
  // An eight-byte integer is signed.
  EXPECT_EQ(decode(binaryPlist({"\x13" + bigEndian(~std::uint64_t{0}, 8)})), Value(-1));
  // Nothing is encoded that would not decode.
  for (const Value& value :
       std::initializer_list<Value>{std::string("a\0b", 3), "\xFF\xFE", Array{"\xC0\x80"},
                                    Dictionary{{std::string("k\0", 2), 1}}, Date::max(), Array{deepest}}) {
    for (const Format format : {Format::xml, Format::binary}) {
      EXPECT_THROW(encode(value, format), EncodeError);
    }
  }
}

}  // namespace
}  // namespace harborkeeper::plist
