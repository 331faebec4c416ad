// Any text, taken as it stands and as the payload of a setup link: a payload
// that parses must pass its own validation and come back unchanged through
// its own setup link; anything else must fail with one of the link's errors.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/foundation/base64.h"
#include "core/provisioning/recovery_agent_link_payload.h"

namespace {

using harborkeeper::RecoveryAgentLinkPayload;
using harborkeeper::RecoveryAgentLinkPayloadError;

const harborkeeper::Date kNow = *harborkeeper::date_time::parseInternetDateTime("2026-01-01T00:00:00Z");

void check(std::string_view text) {
  bool parsed = false;
  try {
    const RecoveryAgentLinkPayload payload = RecoveryAgentLinkPayload::parse(text, kNow);
    parsed = true;
    payload.validate(kNow);
    if (RecoveryAgentLinkPayload::parse(payload.setupLink(), kNow) != payload) std::abort();
  } catch (const RecoveryAgentLinkPayloadError& error) {
    // Only callers that provision agents refuse a type.
    if (parsed || error.kind() == RecoveryAgentLinkPayloadError::Kind::unsupportedAgentType) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  check(text);
  check("harborkeeper://recovery-agent/link?payload=" + harborkeeper::base64::encodeUrl(text));
  return 0;
}
