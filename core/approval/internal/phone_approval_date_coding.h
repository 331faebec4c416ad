#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "core/foundation/date_time.h"

// How a stored PhoneApprovalRequest writes its dates: Internet date-time in
// UTC with the sub-second part kept, so what is written reads back exactly.
namespace harborkeeper::internal {

// "2026-11-15T16:20:00Z", or "2026-11-15T16:20:00.25Z" with one to nine
// fraction digits (trailing zeros dropped) when there is a sub-second part.
std::string formatPreciseDate(Date date);

// What formatPreciseDate writes, plus any form parseInternetDateTime reads
// (the fraction only before "Z"). Nothing for anything else.
std::optional<Date> parsePreciseDate(std::string_view text);

}  // namespace harborkeeper::internal
