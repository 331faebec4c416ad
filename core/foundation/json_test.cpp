#include "core/foundation/json.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace harborkeeper::json {
namespace {

using namespace std::string_literals;
constexpr char kCorrupted[] = "The data couldn’t be read because it isn’t in the correct format.";
constexpr char kMissing[] = "The data couldn’t be read because it is missing.";

std::string nested(int depth) { return std::string(depth, '[') + std::string(depth, ']'); }
auto throwsError(const char* text) { return testing::ThrowsMessage<DecodeError>(testing::StrEq(text)); }

TEST(JsonTest, SerializesSortedWithoutEscapingSlashesOrUtf8) {
  const Json value = Json::parse(R"({"b":[1,"a/b",{}],"a":{"z":null,"y":[]},"C":"Grüße 😀"})");
  EXPECT_EQ(serialize(value), R"({"C":"Grüße 😀","a":{"y":[],"z":null},"b":[1,"a/b",{}]})");
  EXPECT_EQ(serializePretty(value),
            "{\n  \"C\" : \"Grüße 😀\",\n  \"a\" : {\n    \"y\" : [],\n    \"z\" : null\n  },\n"
            "  \"b\" : [\n    1,\n    \"a/b\",\n    {}\n  ]\n}");
  EXPECT_EQ(serialize("\" \\ \n \x07 \xFF"), "\"\\\" \\\\ \\n \\u0007 \uFFFD\"");
}

TEST(JsonTest, ParsesStrictJsonOnlyUpToSixtyFourLevels) {
  EXPECT_EQ(parse(nested(64)), Json::parse(nested(64)));
  // Brackets inside a string, even after an escaped quote, are not nesting.
  EXPECT_EQ(parse("\"\\\"" + std::string(65, '[') + "\""), "\"" + std::string(65, '['));
  for (const std::string& text : {""s, " "s, "{"s, "[1,]"s, R"({"a":1,})"s, "// c\n1"s, "{'a':1}"s, "NaN"s,
                                  "01"s, "1 2"s, "\"\xC3\x28\""s, "[1]]"s, "1e400"s, R"("\x")"s,
                                  R"({"a" 1})"s, "[1,\0 2]"s, nested(65), nested(100000)}) {
    EXPECT_THAT([&] { parse(text); }, throwsError(kCorrupted)) << text.substr(0, 10);
  }
}

TEST(JsonTest, TypedAccessTellsMissingFromWrongType) {
  const Json object = parse(R"({"s":"text","t":true,"n":-5,"u":18446744073709551615,"f":5.0,"g":5.5,
      "big":1e19,"max":9223372036854775807,"bool":"true","null":null})");
  EXPECT_TRUE(requireString(object, "s") == "text" && optionalString(object, "s") == "text");
  EXPECT_EQ(optionalString(object, "null"), std::nullopt);
  EXPECT_TRUE(requireBool(object, "t"));
  EXPECT_EQ(requireInteger(object, "n"), -5);
  EXPECT_EQ(requireInteger(object, "f"), 5);
  EXPECT_EQ(requireInteger(object, "max"), std::numeric_limits<std::int64_t>::max());
  for (const char* key : {"absent", "null"}) {
    EXPECT_THAT([&] { requireString(object, key); }, throwsError(kMissing)) << key;
  }
  // A fraction, beyond the signed range, not a number.
  for (const char* key : {"g", "u", "big", "s", "t"}) {
    EXPECT_THAT([&] { requireInteger(object, key); }, throwsError(kCorrupted)) << key;
  }
  EXPECT_THAT([&] { requireString(object, "n"); }, throwsError(kCorrupted));
  EXPECT_THAT([&] { requireBool(object, "bool"); }, throwsError(kCorrupted));
  EXPECT_THAT([&] { optionalString(object, "t"); }, throwsError(kCorrupted));
  EXPECT_THAT([] { require(Json::array(), "a"); }, throwsError(kCorrupted));
  EXPECT_THAT([] { optionalString(Json("x"), "a"); }, throwsError(kCorrupted));
}

}  // namespace
}  // namespace harborkeeper::json
