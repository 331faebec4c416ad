#include "core/foundation/json.h"

#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace harborkeeper::json {
namespace {

constexpr std::string_view kCorrupted = "The data couldn’t be read because it isn’t in the correct format.";
constexpr std::string_view kMissing = "The data couldn’t be read because it is missing.";

std::string nested(int depth) { return std::string(depth, '[') + std::string(depth, ']'); }

auto throwsDecodeError(std::string_view text) {
  return testing::ThrowsMessage<DecodeError>(testing::StrEq(std::string(text)));
}

TEST(JsonSerializeTest, CompactSortedUnescapedSlashes) {
  const std::vector<std::pair<Json, std::string>> cases = {
      {Json::parse(R"({"b":1,"a":[true,null,"x/y"],"C":{}})"), R"({"C":{},"a":[true,null,"x/y"],"b":1})"},
      {"https://example.com/a?b=c", R"("https://example.com/a?b=c")"},
      {"Grüße 😀", "\"Grüße 😀\""},
      {"quote \" backslash \\ newline \n tab \t bell \x07",
       R"("quote \" backslash \\ newline \n tab \t bell \u0007")"},
      {std::string("bad \xFF utf8"), "\"bad \xEF\xBF\xBD utf8\""},
      {Json::array(), "[]"},
      {1.5, "1.5"},
      {-7, "-7"},
  };
  for (const auto& [value, expected] : cases) {
    EXPECT_EQ(serialize(value), expected);
  }
}

TEST(JsonSerializeTest, PrettyLayout) {
  const std::vector<std::pair<Json, std::string>> cases = {
      {Json::object(), "{}"},
      {Json::array(), "[]"},
      {"a/b", R"("a/b")"},
      {Json::parse(R"({"b":[1,"two",{}],"a":{"z":null,"y":[]}})"),
       "{\n"
       "  \"a\" : {\n"
       "    \"y\" : [],\n"
       "    \"z\" : null\n"
       "  },\n"
       "  \"b\" : [\n"
       "    1,\n"
       "    \"two\",\n"
       "    {}\n"
       "  ]\n"
       "}"},
      {Json::parse(R"([{"k":"v"}])"), "[\n  {\n    \"k\" : \"v\"\n  }\n]"},
  };
  for (const auto& [value, expected] : cases) {
    EXPECT_EQ(serializePretty(value), expected);
  }
}

TEST(JsonParseTest, AcceptsStrictJson) {
  EXPECT_EQ(parse(" {\"a\" : [1, 2.5, \"x\\/y\", false]} \n"),
            Json({{"a", Json::array({1, 2.5, "x/y", false})}}));
  EXPECT_EQ(parse(nested(64)), Json::parse(nested(64)));
  EXPECT_EQ(parse("\"[[[[\""), "[[[[");  // brackets inside strings do not count as nesting
}

TEST(JsonParseTest, RefusesEverythingElse) {
  const std::vector<std::string> cases = {
      "",        " ",       "{",         "[1,]",     R"({"a":1,})",  "// c\n1",
      "{'a':1}", "NaN",     "01",        "1 2",      "\"\xC3\x28\"", "[1]]",
      "1e400",   "\"\\x\"", "{\"a\" 1}", nested(65), nested(100000), std::string("[1,\0 2]", 7),
  };
  for (const std::string& text : cases) {
    SCOPED_TRACE(text.substr(0, 20));
    EXPECT_THAT([&] { parse(text); }, throwsDecodeError(kCorrupted));
  }
}

TEST(JsonAccessTest, TypedValues) {
  const Json object = parse(R"({"s":"text","t":true,"n":-5,"u":18446744073709551615,"f":5.0,"g":5.5,
                               "big":1e19,"min":-9223372036854775808,"max":9223372036854775807,
                               "bool":"true","null":null})");
  EXPECT_EQ(requireString(object, "s"), "text");
  EXPECT_TRUE(requireBool(object, "t"));
  EXPECT_EQ(requireInteger(object, "n"), -5);
  EXPECT_EQ(requireInteger(object, "f"), 5);
  EXPECT_EQ(requireInteger(object, "min"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(requireInteger(object, "max"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(optionalString(object, "s"), "text");
  EXPECT_EQ(optionalString(object, "absent"), std::nullopt);
  EXPECT_EQ(optionalString(object, "null"), std::nullopt);

  const std::vector<std::pair<std::function<void()>, std::string_view>> cases = {
      {[&] { require(object, "absent"); }, kMissing},
      {[&] { requireString(object, "null"); }, kMissing},
      {[&] { requireInteger(object, "absent"); }, kMissing},
      {[&] { requireString(object, "n"); }, kCorrupted},
      {[&] { requireBool(object, "bool"); }, kCorrupted},
      {[&] { requireInteger(object, "g"); }, kCorrupted},
      {[&] { requireInteger(object, "u"); }, kCorrupted},
      {[&] { requireInteger(object, "big"); }, kCorrupted},
      {[&] { requireInteger(object, "s"); }, kCorrupted},
      {[&] { requireInteger(object, "t"); }, kCorrupted},
      {[&] { optionalString(object, "t"); }, kCorrupted},
      {[] { require(Json::array(), "a"); }, kCorrupted},
      {[] { optionalString(Json("x"), "a"); }, kCorrupted},
  };
  for (const auto& [call, text] : cases) {
    EXPECT_THAT(call, throwsDecodeError(text));
  }
}

}  // namespace
}  // namespace harborkeeper::json
