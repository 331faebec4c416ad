#include "core/foundation/date_time.h"

#include <cmath>
#include <cstdio>
#include <limits>

namespace harborkeeper::date_time {
namespace {

using std::chrono::days;
using std::chrono::seconds;

// Reads exactly `count` ASCII digits at `at`.
std::optional<int> readNumber(std::string_view text, std::size_t at, std::size_t count) {
  if (at + count > text.size()) return std::nullopt;
  int value = 0;
  for (std::size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return std::nullopt;
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

// The offset east of UTC after the seconds: "Z", "+HH:MM", "-HH:MM" or "+HHMM".
std::optional<seconds> readOffset(std::string_view rest) {
  if (rest == "Z") return seconds{0};
  if (rest.size() != 5 && rest.size() != 6) return std::nullopt;
  if (rest[0] != '+' && rest[0] != '-') return std::nullopt;
  const bool colon = rest.size() == 6;
  if (colon && rest[3] != ':') return std::nullopt;
  const auto hours = readNumber(rest, 1, 2);
  const auto minutes = readNumber(rest, colon ? 4 : 3, 2);
  if (!hours || !minutes || *hours > 23 || *minutes > 59) return std::nullopt;
  const seconds offset = std::chrono::hours{*hours} + std::chrono::minutes{*minutes};
  return rest[0] == '-' ? -offset : offset;
}

}  // namespace

std::string formatInternetDateTime(Date date) {
  const auto whole = std::chrono::floor<seconds>(date);
  const auto day = std::chrono::floor<days>(whole);
  const std::chrono::year_month_day ymd{day};
  const std::chrono::hh_mm_ss time{whole - day};
  char buffer[32];
  // Cannot be cut short: a Date's year always has four digits.
  static_cast<void>(
      std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02d:%02d:%02dZ", int{ymd.year()},
                    unsigned{ymd.month()}, unsigned{ymd.day()}, static_cast<int>(time.hours().count()),
                    static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count())));
  return buffer;
}

std::optional<Date> parseInternetDateTime(std::string_view text) {
  if (text.size() < 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' ||
      text[16] != ':') {
    return std::nullopt;
  }
  const auto year = readNumber(text, 0, 4);
  const auto month = readNumber(text, 5, 2);
  const auto day = readNumber(text, 8, 2);
  const auto hour = readNumber(text, 11, 2);
  const auto minute = readNumber(text, 14, 2);
  const auto second = readNumber(text, 17, 2);
  const auto offset = readOffset(text.substr(19));
  if (!year || !month || !day || !hour || !minute || !second || !offset) return std::nullopt;
  if (*hour > 23 || *minute > 59 || *second > 59) return std::nullopt;
  const std::chrono::year_month_day ymd{std::chrono::year{*year},
                                        std::chrono::month{static_cast<unsigned>(*month)},
                                        std::chrono::day{static_cast<unsigned>(*day)}};
  if (!ymd.ok()) return std::nullopt;

  const std::chrono::sys_seconds local = std::chrono::sys_days{ymd} + std::chrono::hours{*hour} +
                                         std::chrono::minutes{*minute} + seconds{*second};
  const seconds sinceEpoch = local.time_since_epoch() - *offset;
  // Date counts in nanoseconds and spans only about 1678 to 2262.
  constexpr auto kLimit = std::chrono::duration_cast<seconds>(Date::duration::max());
  if (sinceEpoch > kLimit || sinceEpoch < -kLimit) return std::nullopt;
  return Date{std::chrono::duration_cast<Date::duration>(sinceEpoch)};
}

std::int64_t secondsSince1970(Date date) {
  return std::chrono::duration_cast<seconds>(date.time_since_epoch()).count();
}

Date fromSecondsSince1970(double seconds) {
  using Ticks = Date::duration;
  constexpr double kTicksPerSecond = static_cast<double>(Ticks::period::den) / Ticks::period::num;
  const double ticks = std::round(seconds * kTicksPerSecond);
  // Out-of-range values saturate rather than overflow; NaN means the epoch.
  if (std::isnan(ticks)) return Date{};
  constexpr auto kMax = std::numeric_limits<Ticks::rep>::max();
  if (ticks >= static_cast<double>(kMax)) return Date::max();
  if (ticks <= -static_cast<double>(kMax)) return Date::min();
  return Date{Ticks{static_cast<Ticks::rep>(ticks)}};
}

}  // namespace harborkeeper::date_time
