// A stored profile that decodes must write back as the same profile, and one
// that does not must say which key is wrong, never quote what it holds.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "core/foundation/json.h"
#include "core/recovery/recovery_profile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace harborkeeper;
  json::Json stored;
  try {
    stored = json::parse(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const json::DecodeError&) {
    return 0;
  }
  RecoveryProfile profile;
  try {
    profile = decodeRecoveryProfile(stored);
  } catch (const RecoveryProfileDecodeError& error) {
    const std::string_view message = error.what();
    if (!error.key().empty() && !message.starts_with("\"" + error.key() + "\" ")) std::abort();
    return 0;
  }
  const auto candidates = profile.recoveryHostCandidates();
  if (candidates.size() > 10 || (!candidates.empty() && profile.connectionHost() != candidates.front())) {
    std::abort();
  }
  (void)profile.recentLocalIPSummary();
  (void)profile.normalUsername();
  const json::Json encoded = encodeRecoveryProfile(profile);
  if (decodeRecoveryProfile(json::parse(json::serialize(encoded))) != profile) std::abort();
  return 0;
}
