// Whatever configuration a client sends or a file holds: decoding either
// fails cleanly or gives a record that writes back as itself; validation only
// ever refuses with the invalid-configuration error; a valid one builds a
// signed request whose body names its profile, or is refused as a bad URL.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/foundation/json.h"
#include "core/foundation/plist.h"
#include "core/heartbeat/docker_heartbeat_request.h"
#include "core/platform/fixed_clock.h"

namespace {

using namespace harborkeeper;
using Error = DockerHeartbeatConfigurationStoreError;

bool sameInterval(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

void checkRequest(const DockerHeartbeatConfiguration& configuration) {
  const testing_support::FixedClock clock(Date(std::chrono::seconds(1'800'000'000)), std::chrono::hours(1));
  DockerHeartbeatHttpRequest request;
  try {
    request = DockerHeartbeat::heartbeatRequest(configuration, clock, "host/name");
  } catch (const Error& error) {
    if (error.kind() != Error::Kind::invalidConfiguration) std::abort();
    return;
  }
  // Property lists hold valid UTF-8 only, so the id goes into JSON unchanged.
  if (json::parse(request.body).at("profileId") != configuration.profileID) std::abort();
  if (request.headers.size() != 3 || request.headers[2].second.size() != 43) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  try {
    (void)DockerHeartbeatStatus::decode(bytes);
  } catch (const plist::DecodeError&) {
  }
  DockerHeartbeatConfiguration configuration;
  try {
    configuration = DockerHeartbeatConfiguration::decode(bytes);
  } catch (const plist::DecodeError&) {
    return 0;
  }
  const double clamped = DockerHeartbeatIntervalBounds{}.clamped(configuration.intervalSeconds);
  if (!(clamped >= 30 && clamped <= 600)) std::abort();

  const Bytes written = configuration.encodeXml();
  const auto reread = DockerHeartbeatConfiguration::decode(asStringView(written));
  if (reread.endpointURL != configuration.endpointURL || reread.sharedSecret != configuration.sharedSecret ||
      !sameInterval(reread.intervalSeconds, configuration.intervalSeconds)) {
    std::abort();
  }
  try {
    configuration.validate();
  } catch (const Error& error) {
    if (error.kind() != Error::Kind::invalidConfiguration) std::abort();
    return 0;
  }
  checkRequest(configuration);
  return 0;
}
