#include "core/foundation/date_time.h"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

namespace harborkeeper::date_time {
namespace {

using namespace std::chrono_literals;

Date at(std::chrono::nanoseconds sinceEpoch) { return Date{sinceEpoch}; }

TEST(DateTimeTest, FormatsUtcWholeSecondsRoundingDown) {
  const struct {
    Date date;
    const char* expected;
  } cases[] = {
      {at(0s), "1970-01-01T00:00:00Z"},
      {at(1794759600s), "2026-11-15T16:20:00Z"},
      {at(1794759600s + 999ms), "2026-11-15T16:20:00Z"},
      {at(1709208000s), "2024-02-29T12:00:00Z"},
      {at(-1ns), "1969-12-31T23:59:59Z"},
      {at(-500ms), "1969-12-31T23:59:59Z"},
      {at(-1s), "1969-12-31T23:59:59Z"},
      {at(-1001ms), "1969-12-31T23:59:58Z"},
      {at(-14182940s), "1969-07-20T20:17:40Z"},
  };
  for (const auto& c : cases) EXPECT_EQ(formatInternetDateTime(c.date), c.expected);
}

TEST(DateTimeTest, ParsesUtcAndOffsets) {
  const struct {
    const char* text;
    std::chrono::seconds expected;
  } cases[] = {
      {"1970-01-01T00:00:00Z", 0s},
      {"2026-11-15T16:20:00Z", 1794759600s},
      {"2026-11-15T18:20:00+02:00", 1794759600s},
      {"2026-11-15T18:20:00+0200", 1794759600s},
      {"2026-11-15T10:50:00-05:30", 1794759600s},
      {"2026-11-15T16:20:00-00:00", 1794759600s},
      // Offsets that move the instant onto another day.
      {"2026-11-16T01:20:00+09:00", 1794759600s},
      {"2026-11-14T23:20:00-17:00", 1794759600s},
      {"2026-11-16T16:19:00+23:59", 1794759600s},
      {"2024-02-29T12:00:00Z", 1709208000s},
      {"2000-02-29T23:59:59Z", 951868799s},
      {"1969-07-20T20:17:40Z", -14182940s},
      // The ends of what a Date can hold.
      {"2262-04-11T23:47:16Z", 9223372036s},
      {"1677-09-21T00:12:44Z", -9223372036s},
  };
  for (const auto& c : cases) {
    const auto parsed = parseInternetDateTime(c.text);
    ASSERT_TRUE(parsed.has_value()) << c.text;
    EXPECT_EQ(parsed->time_since_epoch(), c.expected) << c.text;
  }
}

TEST(DateTimeTest, RejectsMalformedOrOutOfRange) {
  const char* const cases[] = {
      "",
      "2026-11-15T16:20:00",         // no offset
      "2026-11-15t16:20:00Z",        // lower-case t
      "2026-11-15T16:20:00z",        // lower-case z
      "2026-11-15T16:20:00.5Z",      // fraction
      "2026-11-15 16:20:00Z",        // space separator
      "2026-11-15T16:20:00Z ",       // trailing
      " 2026-11-15T16:20:00Z",       // leading
      "2026-11-15T16:20:00ZZ",       // extra
      "2026-11-15T16:20Z",           // no seconds
      "26-11-15T16:20:00Z",          // two-digit year
      "2026-1-15T16:20:00Z",         // one-digit month
      "2026-13-01T00:00:00Z",        // month 13
      "2026-00-01T00:00:00Z",        // month 0
      "2026-01-00T00:00:00Z",        // day 0
      "2026-01-32T00:00:00Z",        // day 32
      "2026-04-31T00:00:00Z",        // April 31
      "2024-02-30T00:00:00Z",        // Feb 30
      "2023-02-29T00:00:00Z",        // Feb 29, not a leap year
      "1900-02-29T00:00:00Z",        // century, not a leap year
      "2026-11-15T24:00:00Z",        // hour 24
      "2026-11-15T16:60:00Z",        // minute 60
      "2026-11-15T16:20:60Z",        // leap second
      "2026-11-15T16:20:00+24:00",   // offset hour 24
      "2026-11-15T16:20:00+02:60",   // offset minute 60
      "2026-11-15T16:20:00+02",      // short offset
      "2026-11-15T16:20:00+2:00",    // one-digit offset hour
      "2026-11-15T16:20:00+02:000",  // long offset
      "2026-11-15T16:20:00+02-00",   // wrong offset separator
      "2026-11-15T16:20:00 +02:00",  // space before offset
      "+026-11-15T16:20:00Z",        // sign in a field
      "2026-11-15T16:20:0-Z",        // sign in a field
      "\uFF12026-11-15T16:20:00Z",   // full-width digit
      "2026-11-15T16:2\u0660:00Z",   // Arabic-Indic digit
      "2262-04-11T23:47:17Z",        // beyond a Date
      "1677-09-21T00:12:43Z",        // before a Date
      "0000-01-01T00:00:00Z",
      "9999-12-31T23:59:59Z",
  };
  for (const char* text : cases) EXPECT_EQ(parseInternetDateTime(text), std::nullopt) << text;
}

TEST(DateTimeTest, FormatThenParseRoundTrips) {
  for (const auto seconds : {0s, 1794759600s, -14182940s, 951868799s, 4102444799s}) {
    const auto parsed = parseInternetDateTime(formatInternetDateTime(at(seconds)));
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(parsed->time_since_epoch(), seconds);
  }
}

TEST(DateTimeTest, SecondsSince1970TruncatesTowardZero) {
  const struct {
    std::chrono::nanoseconds since;
    std::int64_t expected;
  } cases[] = {
      {0ns, 0}, {1900ms, 1}, {-500ms, 0}, {-1900ms, -1}, {-1s, -1}, {1794759600s + 999ms, 1794759600},
  };
  for (const auto& c : cases) EXPECT_EQ(secondsSince1970(at(c.since)), c.expected) << c.since.count();
}

TEST(DateTimeTest, FromSecondsSince1970) {
  EXPECT_EQ(fromSecondsSince1970(1.5).time_since_epoch(), 1500ms);
  EXPECT_EQ(fromSecondsSince1970(-0.25).time_since_epoch(), -250ms);
  EXPECT_EQ(fromSecondsSince1970(1794759600.0), at(1794759600s));
  EXPECT_EQ(secondsSince1970(fromSecondsSince1970(1.9)), 1);
  EXPECT_EQ(fromSecondsSince1970(1e300), Date::max());
  EXPECT_EQ(fromSecondsSince1970(-std::numeric_limits<double>::infinity()), Date::min());
  EXPECT_EQ(fromSecondsSince1970(std::nan("")), Date{});
}

}  // namespace
}  // namespace harborkeeper::date_time
