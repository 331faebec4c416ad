#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace harborkeeper {

using Bytes = std::vector<std::uint8_t>;

Bytes toBytes(std::string_view text);
std::string toString(const Bytes& bytes);

// Overwrites the buffer in a way the optimiser cannot drop, then empties it.
// Use on every buffer that held a password or a signing secret.
void secureWipe(std::string& secret) noexcept;
void secureWipe(Bytes& secret) noexcept;

}  // namespace harborkeeper
