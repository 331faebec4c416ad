#pragma once

#include <string_view>

namespace harborkeeper::plist::internal {

// libplist 2.2 reads XML leniently ("abc" as integer 0, an unparsable date as
// 1970, text after a quoted ">" in an attribute as content) and recurses per
// nesting level. This accepts only a well-formed property-list document within
// the limits of plist_binary_check.h, so what libplist then parses is what was
// checked.
bool xmlShapeIsAcceptable(std::string_view text);

}  // namespace harborkeeper::plist::internal
