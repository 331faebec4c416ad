#include "core/foundation/date_time.h"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

namespace harborkeeper::date_time {
namespace {

using namespace std::chrono_literals;

Date at(std::chrono::nanoseconds sinceEpoch) { return Date{sinceEpoch}; }

TEST(DateTimeTest, FormatsUtcWholeSecondsRoundingDown) {
  const std::pair<Date, const char*> cases[] = {
      {at(1709208000s), "2024-02-29T12:00:00Z"}, {at(1794759600s + 999ms), "2026-11-15T16:20:00Z"},
      {at(-14182940s), "1969-07-20T20:17:40Z"},  {at(-1ns), "1969-12-31T23:59:59Z"},
      {at(-1001ms), "1969-12-31T23:59:58Z"},     {at(-1s), "1969-12-31T23:59:59Z"}};
  for (const auto& [date, expected] : cases) EXPECT_EQ(formatInternetDateTime(date), expected);
}

// Both offset forms, offsets that move the instant to another day, leap days,
// and the ends of what a Date can hold. Refused: no offset, lower-case t or z,
// a fraction, short, signed or non-ASCII digit fields, impossible days and
// times (no leap second), malformed offsets, and instants a Date cannot hold.
TEST(DateTimeTest, ParsesUtcAndOffsetsAndRejectsTheRest) {
  const std::pair<const char*, std::chrono::seconds> cases[] = {
      {"2026-11-15T18:20:00+02:00", 1794759600s}, {"1970-01-01T00:00:00Z", 0s},
      {"2026-11-15T18:20:00+0200", 1794759600s},  {"2000-02-29T23:59:59Z", 951868799s},
      {"2026-11-15T10:50:00-05:30", 1794759600s}, {"2026-11-14T23:20:00-17:00", 1794759600s},
      {"2026-11-16T16:19:00+23:59", 1794759600s}, {"1969-07-20T20:17:40Z", -14182940s},
      {"2262-04-11T23:47:16Z", 9223372036s},      {"1677-09-21T00:12:44Z", -9223372036s}};
  for (const auto& [text, since] : cases) EXPECT_EQ(parseInternetDateTime(text), Date{since}) << text;
  for (const char* text :
       {"2026-11-15T16:20:00",       "2026-11-15T16:20:00Z ",     "2026-01-00T00:00:00Z",
        "2026-11-15t16:20:00Z",      "2026-11-15T16:20:00z",      "2026-11-15T16:20:00.5Z",
        "26-11-15T16:20:00Z",        "+026-11-15T16:20:00Z",      "2026-11-15T16:2\u0660:00Z",
        "2026-13-01T00:00:00Z",      "2026-04-31T00:00:00Z",      "2023-02-29T00:00:00Z",
        "1900-02-29T00:00:00Z",      "2026-11-15T24:00:00Z",      "2026-11-15T16:60:00Z",
        "2026-11-15T16:20:60Z",      "2026-11-15T16:20:00+24:00", "2026-11-15T16:20:00+02:60",
        "2026-11-15T16:20:00+02",    "2026-11-15T16:20:00+2:00",  "2026-11-15T16:20:00+02:000",
        "2026-11-15T16:20:00+02-00", "2262-04-11T23:47:17Z",      "1677-09-21T00:12:43Z"}) {
    EXPECT_EQ(parseInternetDateTime(text), std::nullopt) << text;
  }
}

// To seconds truncates toward zero; from seconds rounds and saturates.
TEST(DateTimeTest, ConvertsSecondsSince1970) {
  const std::pair<std::chrono::nanoseconds, std::int64_t> truncated[] = {
      {1900ms, 1}, {-500ms, 0}, {-1900ms, -1}, {-1s, -1}, {1794759600s + 999ms, 1794759600}};
  for (const auto& [since, expected] : truncated) EXPECT_EQ(secondsSince1970(at(since)), expected);
  const std::pair<double, Date> cases[] = {
      {1.000001, at(1000001us)},  // 1000000999.9999999 ticks
      {-0.25, at(-250ms)},       {1794759600.0, at(1794759600s)},
      {1e300, Date::max()},      {-std::numeric_limits<double>::infinity(), Date::min()},
      {std::nan(""), Date{}}};
  for (const auto& [seconds, expected] : cases) EXPECT_EQ(fromSecondsSince1970(seconds), expected) << seconds;
}

}  // namespace
}  // namespace harborkeeper::date_time
