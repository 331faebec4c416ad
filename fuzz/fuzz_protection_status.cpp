// A status file that decodes must give a state and write back as the same
// record (its date cut to whole seconds, as XML carries them).
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/foundation/plist.h"
#include "core/protection/protection_status.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace harborkeeper;
  HelperProtectionStatus status;
  try {
    status = HelperProtectionStatus::decode(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const plist::DecodeError&) {
    return 0;
  }
  const ProtectionState state = status.protectionState(status.armedAt);
  if (status.succeeded && state.kind() != ProtectionState::Kind::expired) std::abort();
  if (!status.succeeded && state.message() != status.message) std::abort();

  const Bytes xml = status.encodeXml();
  HelperProtectionStatus expected = status;
  expected.armedAt = std::chrono::floor<std::chrono::seconds>(status.armedAt);
  if (HelperProtectionStatus::decode(std::string(xml.begin(), xml.end())) != expected) std::abort();
  return 0;
}
