#pragma once

#include <stdexcept>
#include <string>

#include "core/platform/unique_fd.h"

namespace harborkeeper {

class EndpointError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The listening socket: the one systemd passed (socket activation, checked to
// be a listening Unix stream socket), or a new one bound at `path` with mode
// 0666 (the peer check decides who is served). A stale socket left by a
// daemon that is gone is replaced; a live one, or anything that is not a
// socket, is refused with EndpointError.
UniqueFd openListeningSocket(const std::string& path);

}  // namespace harborkeeper
