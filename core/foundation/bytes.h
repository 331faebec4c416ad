#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace harborkeeper {

using Bytes = std::vector<std::uint8_t>;

Bytes toBytes(std::string_view text);
std::string toString(const Bytes& bytes);

// The bytes as characters, without a copy; valid while `bytes` is unchanged.
inline std::string_view asStringView(const Bytes& bytes) noexcept {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Overwrites the buffer in a way the optimiser cannot drop, then empties it.
// Use on every buffer that held a password or a signing secret.
void secureWipe(std::string& secret) noexcept;
void secureWipe(Bytes& secret) noexcept;

// Wipes `secret` when the scope ends, however it ends (any type with a
// secureWipe overload).
template <class Secret>
class WipeOnExit final {
 public:
  explicit WipeOnExit(Secret& secret) noexcept : secret_(secret) {}
  ~WipeOnExit() { secureWipe(secret_); }
  WipeOnExit(const WipeOnExit&) = delete;
  WipeOnExit& operator=(const WipeOnExit&) = delete;

 private:
  Secret& secret_;
};

}  // namespace harborkeeper
