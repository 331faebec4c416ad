// The Linux PeerInspector: the kernel's view of the peer through /proc, pinned
// to the exact process by a pidfd.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <system_error>

#include "helper/peer_check.h"
#include "helper/secure_path.h"

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77  // Linux 6.5; older C libraries lack the name
#endif

namespace harborkeeper {

namespace {

using Kind = PeerCheckError::Kind;

constexpr std::string_view kDeletedSuffix = " (deleted)";

std::string reason(int errorNumber) { return std::generic_category().message(errorNumber); }

std::string processName(pid_t pid) { return "process " + std::to_string(pid); }

PeerCheckError unknown(const std::string& message) { return {Kind::peerUnknown, message}; }

// Gone from /proc means exited (or a zombie); anything else is reported as is.
PeerCheckError procError(int errorNumber, pid_t pid) {
  if (errorNumber == ENOENT || errorNumber == ESRCH) {
    return unknown("Process " + std::to_string(pid) + " has exited.");
  }
  return unknown("Could not read the executable of " + processName(pid) + ": " + reason(errorNumber) + ".");
}

pid_t peerPid(int connectedSocket) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(connectedSocket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
    throw unknown("Could not read the credentials of the peer: " + reason(errno) + ".");
  }
  if (credentials.pid <= 0) throw unknown("The peer has no process id.");
  return credentials.pid;
}

// SO_PEERPIDFD names the very process that connected. Only a kernel without it
// (ENOPROTOOPT) gets pidfd_open on the pid, which a recycled pid could fool.
// A kernel that has it answers EINVAL when the peer is already gone, so that
// must not fall back to the pid.
UniqueFd peerPidFd(int connectedSocket, pid_t pid) {
  int pidfd = -1;
  socklen_t length = sizeof pidfd;
  if (::getsockopt(connectedSocket, SOL_SOCKET, SO_PEERPIDFD, &pidfd, &length) == 0) return UniqueFd(pidfd);
  if (errno == EINVAL || errno == ESRCH) throw unknown("Process " + std::to_string(pid) + " has exited.");
  if (errno != ENOPROTOOPT) {
    throw unknown("Could not identify " + processName(pid) + ": " + reason(errno) + ".");
  }
  UniqueFd opened(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));  // always close-on-exec
  if (!opened) throw procError(errno, pid);
  return opened;
}

std::string procExe(pid_t pid) { return "/proc/" + std::to_string(pid) + "/exe"; }

std::string executablePath(pid_t pid) {
  std::string path(256, '\0');
  for (;;) {
    const ssize_t length = ::readlink(procExe(pid).c_str(), path.data(), path.size());
    if (length < 0) throw procError(errno, pid);
    if (static_cast<std::size_t>(length) < path.size()) {
      return path.substr(0, static_cast<std::size_t>(length));
    }
    path.resize(path.size() * 2);
  }
}

// The file the process runs, whatever name it has now.
struct stat runningFile(pid_t pid) {
  const UniqueFd fd(::open(procExe(pid).c_str(), O_PATH | O_CLOEXEC));
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0) throw procError(errno, pid);
  return status;
}

std::string subjectOf(const PeerExecutable& peer) {
  return "The executable of " + processName(peer.pid) + ", " + peer.path + ",";
}

PeerCheckError fromSecurePathError(const SecurePathError& error, const PeerExecutable& peer) {
  if (error.kind() == SecurePathError::Kind::missing) {
    return {Kind::executableGone, subjectOf(peer) + " no longer exists."};
  }
  return {Kind::executableInsecure, subjectOf(peer) + " is not safe: " + error.what()};
}

void checkExecutable(const PeerExecutable& peer, uid_t expectedOwner) {
  if (peer.path.ends_with(kDeletedSuffix)) {
    throw PeerCheckError(Kind::executableGone,
                         subjectOf(peer) + " was deleted or replaced since it was started.");
  }
  const struct stat running = runningFile(peer.pid);
  struct stat onDisk {};
  try {
    openSecurely(peer.path, expectedOwner, &onDisk);
  } catch (const SecurePathError& error) {
    throw fromSecurePathError(error, peer);
  }
  if (onDisk.st_dev != running.st_dev || onDisk.st_ino != running.st_ino) {
    throw PeerCheckError(Kind::executableGone, subjectOf(peer) + " is no longer the file the process runs.");
  }
}

// A pidfd turns readable once its process exits; until then the pid cannot be reused.
void confirmRunning(int pidfd, pid_t pid) {
  pollfd entry{pidfd, POLLIN, 0};
  int ready = ::poll(&entry, 1, 0);
  while (ready < 0 && errno == EINTR) ready = ::poll(&entry, 1, 0);
  if (ready < 0) {
    throw unknown("Could not check that " + processName(pid) + " still runs: " + reason(errno) + ".");
  }
  if (ready > 0) throw unknown("Process " + std::to_string(pid) + " exited during the check.");
}

class ProcPeerInspector final : public PeerInspector {
 public:
  explicit ProcPeerInspector(uid_t expectedOwner) : expectedOwner_(expectedOwner) {}

  PeerExecutable inspect(int connectedSocket) const override {
    const pid_t pid = peerPid(connectedSocket);
    const UniqueFd pidfd = peerPidFd(connectedSocket, pid);
    PeerExecutable peer{pid, executablePath(pid)};
    checkExecutable(peer, expectedOwner_);
    confirmRunning(pidfd.get(), pid);
    return peer;
  }

 private:
  uid_t expectedOwner_;
};

}  // namespace

std::unique_ptr<PeerInspector> makeProcPeerInspector(uid_t expectedOwner) {
  return std::make_unique<ProcPeerInspector>(expectedOwner);
}

}  // namespace harborkeeper
