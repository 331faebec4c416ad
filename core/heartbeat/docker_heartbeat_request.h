#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/heartbeat/docker_heartbeat_configuration.h"
#include "core/platform/clock.h"

namespace harborkeeper {

// One heartbeat as it goes on the wire. The body is signed as these bytes and
// must be sent as they are.
struct DockerHeartbeatHttpRequest {
  std::string method;
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;  // in sending order
  std::string body;
  std::chrono::seconds timeout{0};
};

namespace DockerHeartbeat {

inline constexpr std::string_view timestampHeader = "X-Harborkeeper-Heartbeat-Timestamp";
inline constexpr std::string_view signatureHeader = "X-Harborkeeper-Heartbeat-Signature";
inline constexpr std::chrono::seconds requestTimeout{10};

// Unpadded URL-safe base64 of HMAC-SHA256(secret, timestamp "." body): 43
// characters. The secret's bytes are the key exactly as stored.
std::string heartbeatSignature(std::string_view secret, std::string_view timestamp, std::string_view body);

// The compact JSON body, keys sorted and "/" unescaped:
// {"bootIdentifier":..,"helperVersion":..,"hostName":..,"profileId":..}.
// The boot identifier is the boot date in whole seconds since 1970.
std::string heartbeatBody(const DockerHeartbeatConfiguration& configuration, const Clock& clock,
                          std::string_view hostName);

// The complete POST with its timestamp (now, whole seconds) and signature.
// Throws DockerHeartbeatConfigurationStoreError::invalidConfiguration("Use a
// valid heartbeat URL.") for an endpoint that is not a usable URL.
DockerHeartbeatHttpRequest heartbeatRequest(const DockerHeartbeatConfiguration& configuration,
                                            const Clock& clock, std::string_view hostName);

}  // namespace DockerHeartbeat
}  // namespace harborkeeper
