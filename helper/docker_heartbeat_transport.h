#pragma once

#include <functional>
#include <string>

#include "core/heartbeat/docker_heartbeat_request.h"

namespace harborkeeper {

// How one heartbeat ended, as far as the sender cares: it is only logged.
struct DockerHeartbeatOutcome {
  enum class Kind { transportFailed, notHttp, httpStatus };
  Kind kind = Kind::httpStatus;
  std::string transportError;  // transportFailed: what failed, for the log
  long statusCode = 0;         // httpStatus
};

// The seam through which heartbeats leave the daemon.
class DockerHeartbeatTransport {
 public:
  using Completion = std::function<void(const DockerHeartbeatOutcome&)>;

  virtual ~DockerHeartbeatTransport() = default;
  // Starts sending and returns at once; `completion` runs later on the
  // transport's own thread (or never, if the transport is destroyed first).
  // Thread-safe.
  virtual void send(DockerHeartbeatHttpRequest request, Completion completion) = 0;
};

}  // namespace harborkeeper
