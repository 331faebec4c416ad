#include "core/foundation/base64.h"

#include <string>

#include <gtest/gtest.h>

namespace harborkeeper::base64 {
namespace {

// Round trips of every remainder length are fuzz_base64's, replayed over its corpus.
TEST(Base64Test, EncodesKnownVectors) {
  const struct Case {
    std::string plain, standard, url;
  } cases[] = {{"f", "Zg==", "Zg"},
               {"fo", "Zm8=", "Zm8"},
               {"\xFB\xFF\xBF", "+/+/", "-_-_"},
               {std::string("\0\0", 2), "AAA=", "AAA"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.standard);
    EXPECT_EQ(encode(c.plain), c.standard);
    EXPECT_EQ(encodeUrl(c.plain), c.url);
  }
}

TEST(Base64Test, DecodersAreStrict) {
  // Wrong length or padding, '=' inside, bits left over after the last byte,
  // white space, the other alphabet, non-ASCII.
  for (const std::string text : {"Zg", "Zg=", "Zm9vY", "Z===", "Zg==Zg==", "=Zm9",
                                 "Zh==", "Zm9=", "Zm9v\nZm9", "Zm9 ", "-_-_", "Zm9_", "Zm9\xC3"}) {
    EXPECT_EQ(decode(text), std::nullopt) << text;
  }
  for (const std::string text :
       {"Zm9vY", "Z", "Zg=", "Zm8==", "Zg===", "Zg==Zg", "+/+/", "Zm9/", "Zh", "Zm 9v", "Zm9\xC3"}) {
    EXPECT_EQ(decodeUrl(text), std::nullopt) << text;
  }
  EXPECT_EQ(decodeUrl(std::string_view("ZZ", 1)), std::nullopt);  // nothing is read past the end
}

}  // namespace
}  // namespace harborkeeper::base64
