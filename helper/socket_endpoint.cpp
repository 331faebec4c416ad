#include "helper/socket_endpoint.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <system_error>

namespace harborkeeper {

namespace {

constexpr int listenBacklog = 128;

std::string errorText(int error) { return std::error_code(error, std::generic_category()).message(); }

EndpointError systemFailure(const std::string& what, const std::string& path, int error = errno) {
  return EndpointError(what + " " + path + ": " + errorText(error) + ".");
}

std::optional<UniqueFd> activatedSocket() {
  const int count = sd_listen_fds(1);
  if (count < 0) {
    throw EndpointError("Could not take the socket passed by systemd: " + errorText(-count) + ".");
  }
  if (count == 0) return std::nullopt;
  if (count > 1) {
    throw EndpointError("systemd passed " + std::to_string(count) +
                        " sockets; the helper takes exactly one.");
  }
  UniqueFd fd(SD_LISTEN_FDS_START);
  if (sd_is_socket_unix(fd.get(), SOCK_STREAM, 1, nullptr, 0) <= 0) {
    throw EndpointError("The socket passed by systemd is not a listening Unix stream socket.");
  }
  const int flags = ::fcntl(fd.get(), F_GETFD);
  if (flags < 0 || ::fcntl(fd.get(), F_SETFD, flags | FD_CLOEXEC) != 0) {
    throw EndpointError("Could not configure the socket passed by systemd: " + errorText(errno) + ".");
  }
  return fd;
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    throw EndpointError("The socket path " + path + " is not 1 to " +
                        std::to_string(sizeof address.sun_path - 1) + " bytes long.");
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

UniqueFd newSocket(const std::string& path) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd) throw systemFailure("Could not create a socket for", path);
  return fd;
}

// A socket file nobody listens on is what a daemon that died leaves behind.
// The probe does not block: a live daemon with a full backlog answers EAGAIN.
bool someoneListensOn(const std::string& path, const sockaddr_un& address) {
  UniqueFd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!probe) throw systemFailure("Could not create a socket for", path);
  if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return true;
  const int error = errno;
  if (error == ECONNREFUSED) return false;
  if (error == EAGAIN || error == EINPROGRESS) return true;
  throw systemFailure("Could not check the existing socket", path, error);
}

void removeStaleSocket(const std::string& path, const sockaddr_un& address) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) return;
    throw systemFailure("Could not inspect", path);
  }
  if (!S_ISSOCK(status.st_mode)) throw EndpointError(path + " exists and is not a socket.");
  if (someoneListensOn(path, address)) {
    throw EndpointError("Another Harborkeeper helper is already listening on " + path + ".");
  }
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    throw systemFailure("Could not remove the stale socket", path);
  }
}

ListeningEndpoint bindSocket(const std::string& path) {
  const sockaddr_un address = addressOf(path);
  removeStaleSocket(path, address);
  ListeningEndpoint endpoint{newSocket(path), {}, 0, 0};
  if (::bind(endpoint.socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw systemFailure("Could not bind", path);
  }
  endpoint.boundPath = path;
  struct stat status {};
  // Anyone may connect: the peer check, not the file mode, decides who is served.
  if (::lstat(path.c_str(), &status) != 0 || ::chmod(path.c_str(), 0666) != 0 ||
      ::listen(endpoint.socket.get(), listenBacklog) != 0) {
    const int error = errno;
    ::unlink(path.c_str());
    throw systemFailure("Could not listen on", path, error);
  }
  endpoint.boundDevice = status.st_dev;
  endpoint.boundInode = status.st_ino;
  return endpoint;
}

}  // namespace

UniqueFd openListeningSocket(const std::string& path) {
  return std::move(openListeningEndpoint(path).socket);
}

ListeningEndpoint openListeningEndpoint(const std::string& path) {
  if (std::optional<UniqueFd> activated = activatedSocket()) return {std::move(*activated), {}, 0, 0};
  return bindSocket(path);
}

void removeBoundSocketFile(const ListeningEndpoint& endpoint) noexcept {
  if (endpoint.boundPath.empty()) return;
  struct stat status {};
  if (::lstat(endpoint.boundPath.c_str(), &status) != 0) return;
  if (S_ISSOCK(status.st_mode) && status.st_dev == endpoint.boundDevice &&
      status.st_ino == endpoint.boundInode) {
    ::unlink(endpoint.boundPath.c_str());
  }
}

}  // namespace harborkeeper
