#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace harborkeeper::uuid {

// A random (version 4) UUID as upper-case text: "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
std::string makeV4();

// The UUID in `text` ("8-4-4-4-12" hexadecimal digits, any letter case, no
// braces) as upper-case text; nothing for anything else. Any version.
std::optional<std::string> parse(std::string_view text);

}  // namespace harborkeeper::uuid
