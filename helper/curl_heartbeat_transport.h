#pragma once

#include <memory>

#include "helper/docker_heartbeat_transport.h"

namespace harborkeeper {

// Heartbeats over libcurl: one worker thread drives every transfer at once,
// so a slow or silent endpoint holds up neither the caller nor the next beat.
// Each transfer is limited by its request's timeout; redirects are not
// followed and only http and https are spoken.
//
// Destruction abandons transfers still in flight without completing them.
std::unique_ptr<DockerHeartbeatTransport> makeCurlHeartbeatTransport();

}  // namespace harborkeeper
