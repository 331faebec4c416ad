// Whatever parses must format to text that parses back to the same instant.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/foundation/date_time.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace harborkeeper;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const auto parsed = date_time::parseInternetDateTime(input);
  if (!parsed) return 0;
  const std::string formatted = date_time::formatInternetDateTime(*parsed);
  if (formatted.size() != 20 || formatted.back() != 'Z') std::abort();
  const auto again = date_time::parseInternetDateTime(formatted);
  if (!again || *again != *parsed) std::abort();
  if (input.back() == 'Z' && formatted != input) std::abort();
  return 0;
}
