// Whatever comes back is one white-space-free piece of the input beginning
// with the exact prefix; an input that begins with the prefix always has one.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "core/recovery/companion_recovery_service.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using harborkeeper::CompanionRecoveryService;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const auto fingerprint = CompanionRecoveryService::parseSHA256Fingerprint(input);
  if (!fingerprint) {
    if (input.starts_with("SHA256:")) std::abort();
    return 0;
  }
  const bool inInput = input.find(*fingerprint) != std::string_view::npos;
  if (!fingerprint->starts_with("SHA256:") || !inInput) std::abort();
  if (input.starts_with("SHA256:") && !input.starts_with(*fingerprint)) std::abort();
  // White space inside would end the piece early when parsed again.
  if (CompanionRecoveryService::parseSHA256Fingerprint(*fingerprint + " tail") != fingerprint) std::abort();
  return 0;
}
