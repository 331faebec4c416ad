// Test peer for the peer check: connects to the Unix socket at argv[1] and
// stays until the other end closes, so its executable can be inspected live.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

int main(int argc, char** argv) {
  sockaddr_un address{};
  const std::size_t length = argc == 2 ? std::strlen(argv[1]) : 0;
  if (length == 0 || length >= sizeof address.sun_path) return 2;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, argv[1], length);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return 1;
  char byte = 0;
  while (::read(fd, &byte, 1) > 0) {
  }
  return 0;
}
