#include "bench/soak/no_content_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <system_error>

namespace harborkeeper::testing_support {

namespace {

std::system_error systemError(const char* what) { return {errno, std::generic_category(), what}; }

// The Content-Length a request head announces; 0 when it has none.
std::size_t contentLength(std::string_view head) {
  constexpr std::string_view name = "\r\ncontent-length:";
  std::string lower(head);
  for (char& c : lower) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  const std::size_t at = lower.find(name);
  return at == std::string::npos ? 0 : std::stoul(lower.substr(at + name.size()));
}

}  // namespace

NoContentServer::NoContentServer()
    : listening_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), stop_(::eventfd(0, EFD_CLOEXEC)) {
  if (!listening_ || !stop_) throw systemError("heartbeat endpoint");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(listening_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listening_.get(), 16) != 0 ||
      ::getsockname(listening_.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw systemError("heartbeat endpoint");
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { serve(); });
}

NoContentServer::~NoContentServer() {
  const std::uint64_t one = 1;
  (void)!::write(stop_.get(), &one, sizeof one);
  thread_.join();
}

std::string NoContentServer::url() const {
  return "http://127.0.0.1:" + std::to_string(port_) + "/heartbeat";
}

void NoContentServer::serve() {
  for (;;) {
    pollfd fds[] = {{stop_.get(), POLLIN, 0}, {listening_.get(), POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0 && errno != EINTR) return;
    if (fds[0].revents != 0) return;
    if (fds[1].revents == 0) continue;
    UniqueFd connection(::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (connection) answer(std::move(connection));
  }
}

// A client that stalls gets 5 s, so a broken beat cannot wedge the endpoint.
void NoContentServer::answer(UniqueFd connection) {
  const timeval limit{5, 0};
  (void)::setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  std::string request;
  char buffer[4096];
  std::size_t headEnd = std::string::npos;
  while (headEnd == std::string::npos ||
         request.size() < headEnd + 4 + contentLength(request.substr(0, headEnd))) {
    const ssize_t got = ::recv(connection.get(), buffer, sizeof buffer, 0);
    if (got <= 0) return;
    request.append(buffer, static_cast<std::size_t>(got));
    headEnd = request.find("\r\n\r\n");
  }
  constexpr std::string_view reply = "HTTP/1.1 204 No Content\r\nConnection: close\r\n\r\n";
  if (::send(connection.get(), reply.data(), reply.size(), MSG_NOSIGNAL) == ssize_t(reply.size())) {
    ++answered_;
  }
}

}  // namespace harborkeeper::testing_support
