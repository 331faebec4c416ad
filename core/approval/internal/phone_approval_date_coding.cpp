#include "core/approval/internal/phone_approval_date_coding.h"

#include <chrono>
#include <cstdint>

namespace harborkeeper::internal {

namespace {

using std::chrono::nanoseconds;

constexpr std::size_t kMaxFractionDigits = 9;

}  // namespace

std::string formatPreciseDate(Date date) {
  std::string text = date_time::formatInternetDateTime(date);
  const auto fraction =
      std::chrono::duration_cast<nanoseconds>(date - std::chrono::floor<std::chrono::seconds>(date));
  if (fraction.count() == 0) return text;
  std::string digits = std::to_string(fraction.count());
  digits.insert(0, kMaxFractionDigits - digits.size(), '0');
  digits.erase(digits.find_last_not_of('0') + 1);
  text.insert(text.size() - 1, "." + digits);
  return text;
}

std::optional<Date> parsePreciseDate(std::string_view text) {
  const auto dot = text.find('.');
  if (dot == std::string_view::npos) return date_time::parseInternetDateTime(text);
  const std::string_view digits = text.substr(dot + 1, text.size() - dot - 2);
  if (!text.ends_with('Z') || dot + 2 > text.size() || digits.empty() || digits.size() > kMaxFractionDigits) {
    return std::nullopt;
  }
  std::int64_t fraction = 0;
  for (std::size_t index = 0; index < kMaxFractionDigits; ++index) {
    const char digit = index < digits.size() ? digits[index] : '0';
    if (digit < '0' || digit > '9') return std::nullopt;
    fraction = fraction * 10 + (digit - '0');
  }
  std::string whole(text.substr(0, dot));
  whole += 'Z';
  const auto date = date_time::parseInternetDateTime(whole);
  const nanoseconds step{fraction};
  if (!date || *date > Date::max() - step) return std::nullopt;
  return *date + step;
}

}  // namespace harborkeeper::internal
