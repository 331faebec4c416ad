#pragma once

#include <string>

namespace harborkeeper::uuid {

// A random (version 4) UUID as upper-case text: "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
std::string makeV4();

}  // namespace harborkeeper::uuid
