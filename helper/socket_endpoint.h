#pragma once

#include <sys/types.h>

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

// The same socket, and the file this process bound for it, if any.
struct ListeningEndpoint {
  UniqueFd socket;
  // Empty when systemd passed the socket: its file is systemd's to remove.
  std::string boundPath;
  dev_t boundDevice = 0;
  ino_t boundInode = 0;
};
ListeningEndpoint openListeningEndpoint(const std::string& path);

// Unlinks the file openListeningEndpoint() bound, unless it is gone or is no
// longer that same file. Never throws.
void removeBoundSocketFile(const ListeningEndpoint& endpoint) noexcept;

}  // namespace harborkeeper
