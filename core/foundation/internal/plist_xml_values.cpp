#include "core/foundation/internal/plist_xml_values.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

#include "core/foundation/date_time.h"

namespace harborkeeper::plist::internal {
namespace {

std::string_view trimmedXmlSpace(std::string_view text) {
  while (!text.empty() && isXmlSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isXmlSpace(text.back())) text.remove_suffix(1);
  return text;
}

bool isDigits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

bool isXmlSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// libplist would clamp a value out of range rather than refuse it.
bool isValidXmlInteger(std::string_view text) {
  text = trimmedXmlSpace(text);
  const bool negative = !text.empty() && text.front() == '-';
  if (!text.empty() && (text.front() == '-' || text.front() == '+')) text.remove_prefix(1);
  std::uint64_t magnitude = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude);
  const std::uint64_t limit = std::uint64_t{1} << 63;
  return isDigits(text) && error == std::errc() && end == text.data() + text.size() &&
         (negative ? magnitude <= limit : magnitude < limit);
}

bool isValidXmlReal(std::string_view text) {
  text = trimmedXmlSpace(text);
  if (text == "nan" || text == "+infinity" || text == "-infinity") return true;
  if (!text.empty() && (text.front() == '-' || text.front() == '+')) text.remove_prefix(1);
  const auto exponent = text.find_first_of("eE");
  std::string_view mantissa = text.substr(0, exponent);
  if (exponent != std::string_view::npos) {
    std::string_view power = text.substr(exponent + 1);
    if (!power.empty() && (power.front() == '-' || power.front() == '+')) power.remove_prefix(1);
    if (!isDigits(power)) return false;
  }
  const auto point = mantissa.find('.');
  if (point == std::string_view::npos) return isDigits(mantissa);
  const auto whole = mantissa.substr(0, point);
  const auto fraction = mantissa.substr(point + 1);
  return (isDigits(whole) || whole.empty()) && (isDigits(fraction) || fraction.empty()) &&
         !(whole.empty() && fraction.empty());
}

bool isValidXmlDate(std::string_view text) {
  constexpr std::string_view kForm = "YYYY-MM-DDTHH:MM:SSZ";
  return text.size() == kForm.size() && text.back() == 'Z' &&
         date_time::parseInternetDateTime(text).has_value();
}

bool isValidXmlData(std::string_view text) {
  std::size_t count = 0;
  std::size_t padding = 0;
  for (const char c : text) {
    if (isXmlSpace(c)) continue;
    const bool alphabet =
        (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
    if (c == '=') {
      ++padding;
    } else if (!alphabet || padding > 0) {
      return false;
    }
    ++count;
  }
  return count % 4 == 0 && padding <= 2;
}

}  // namespace harborkeeper::plist::internal
