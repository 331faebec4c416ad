#include "core/foundation/base64.h"

#include <random>
#include <string>

#include <gtest/gtest.h>

namespace harborkeeper::base64 {
namespace {

Bytes randomBytes(std::size_t count, std::mt19937& engine) {
  std::uniform_int_distribution<int> byte(0, 255);
  Bytes bytes(count);
  for (auto& b : bytes) b = static_cast<std::uint8_t>(byte(engine));
  return bytes;
}

TEST(Base64Test, KnownVectors) {
  const struct {
    std::string plain, standard, url;
  } cases[] = {
      {"", "", ""},
      {"f", "Zg==", "Zg"},
      {"fo", "Zm8=", "Zm8"},
      {"foo", "Zm9v", "Zm9v"},
      {"foobar", "Zm9vYmFy", "Zm9vYmFy"},
      {"\xFB\xFF\xBF", "+/+/", "-_-_"},
      {std::string("\0\0", 2), "AAA=", "AAA"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(encode(c.plain), c.standard);
    EXPECT_EQ(encodeUrl(c.plain), c.url);
    EXPECT_EQ(decode(c.standard), toBytes(c.plain)) << c.standard;
    EXPECT_EQ(decodeUrl(c.url), toBytes(c.plain)) << c.url;
  }
}

TEST(Base64Test, RoundTripsEveryLengthUpTo64) {
  std::mt19937 engine(20261115);
  for (std::size_t length = 0; length <= 64; ++length) {
    const Bytes bytes = randomBytes(length, engine);
    const std::string standard = encode(bytes);
    const std::string url = encodeUrl(bytes);
    EXPECT_EQ(standard.size(), (length + 2) / 3 * 4);
    EXPECT_EQ(url.find_first_of("+/="), std::string::npos);
    EXPECT_EQ(decode(standard), bytes) << length;
    EXPECT_EQ(decodeUrl(url), bytes) << length;
    std::string paddedUrl = url;
    paddedUrl.resize(standard.size(), '=');
    EXPECT_EQ(decodeUrl(paddedUrl), bytes) << paddedUrl;
  }
}

TEST(Base64Test, RoundTripsMegabytes) {
  std::mt19937 engine(7);
  const Bytes bytes = randomBytes(3 * 1024 * 1024 + 1, engine);
  EXPECT_EQ(decode(encode(bytes)), bytes);
  EXPECT_EQ(decodeUrl(encodeUrl(bytes)), bytes);
}

struct Rejection {
  const char* why;
  std::string text;
};

TEST(Base64Test, DecodeIsStrict) {
  const Rejection cases[] = {
      {"missing padding", "Zg"},
      {"short padding", "Zg="},
      {"length not a multiple of 4", "Zm9vY"},
      {"too much padding", "Z==="},
      {"only padding", "===="},
      {"padding in the middle", "Zg==Zg=="},
      {"padding before data", "=Zm9"},
      {"non-zero bits after one byte", "Zh=="},
      {"non-zero bits after two bytes", "Zm9="},
      {"space", "Zm9v Zm9v"},
      {"newline", "Zm9v\nZm9v"},
      {"trailing newline", "Zm9v\n"},
      {"URL-safe minus", "-_-_"},
      {"URL-safe underscore", "Zm9_"},
      {"non-ASCII", "Zm9\xC3"},
      {"NUL", std::string("Zm9\0", 4)},
  };
  for (const auto& c : cases) EXPECT_EQ(decode(c.text), std::nullopt) << c.why;
}

TEST(Base64Test, DecodeUrlAcceptsOptionalButCorrectPadding) {
  const Rejection rejected[] = {
      {"4n+1 characters", "Zm9vY"},
      {"single character", "Z"},
      {"partial padding", "Zg="},
      {"excess padding", "Zm8=="},
      {"three padding characters", "Zg==="},
      {"padding in the middle", "Zg==Zg"},
      {"standard plus", "+/+/"},
      {"standard slash", "Zm9/"},
      {"non-zero bits", "Zh"},
      {"white space", "Zm 9v"},
  };
  for (const auto& c : rejected) EXPECT_EQ(decodeUrl(c.text), std::nullopt) << c.why;
  EXPECT_EQ(decodeUrl("Zm8="), toBytes("fo"));
  EXPECT_EQ(decodeUrl("Zm8"), toBytes("fo"));
}

}  // namespace
}  // namespace harborkeeper::base64
