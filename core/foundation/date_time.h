#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace harborkeeper {

// A point in time with sub-second precision, as property-list dates carry.
using Date = std::chrono::system_clock::time_point;

namespace date_time {

// "2026-11-15T16:20:00Z": UTC, whole seconds (the fraction is dropped, rounding
// toward the earlier second).
std::string formatInternetDateTime(Date date);

// Reads "YYYY-MM-DDTHH:MM:SS" followed by "Z" or a numeric offset "+HH:MM" /
// "-HH:MM" (also without the colon, "+HHMM"). No fractional seconds, no
// lower-case "t"/"z", ASCII digits only, fields range-checked (including the
// day of the month; no leap second, offset hours at most 23). Nothing for
// anything else, nor for instants a Date cannot hold (it spans 1677-09-21 to
// 2262-04-11).
std::optional<Date> parseInternetDateTime(std::string_view text);

// Whole seconds since 1970-01-01T00:00:00Z, truncated toward zero (so
// -0.5 s gives 0).
std::int64_t secondsSince1970(Date date);

// Rounded to the nearest tick of Date; values beyond its range saturate.
Date fromSecondsSince1970(double seconds);

}  // namespace date_time
}  // namespace harborkeeper
