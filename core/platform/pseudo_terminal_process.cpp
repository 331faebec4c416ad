#include "core/platform/pseudo_terminal_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <utility>

#include "core/foundation/bytes.h"
#include "core/platform/internal/process_spawn.h"
#include "core/platform/internal/retry.h"

namespace harborkeeper {
namespace {

using internal::retryOnInterrupt;
using Steady = std::chrono::steady_clock;

constexpr std::size_t kReadChunk = 4096;
// Without a pidfd the child's exit is noticed by polling at this period.
constexpr int kExitPollMilliseconds = 5;

int millisecondsUntil(Steady::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Steady::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

int milliseconds(std::chrono::milliseconds duration) {
  return static_cast<int>(std::clamp<long long>(duration.count(), 0, INT_MAX));
}

// The child dup2s onto 0-2, which must not clobber a descriptor it still needs
// when our caller runs with a standard stream closed.
bool moveAboveStandardStreams(UniqueFd& fd) {
  if (fd.get() > STDERR_FILENO) return true;
  const int moved = ::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (moved < 0) return false;
  fd.reset(moved);
  return true;
}

struct Terminal {
  UniqueFd primary;
  UniqueFd secondary;
};

// As openpty does, but both ends are close-on-exec from birth, so a process
// another thread starts meanwhile cannot inherit either. Returns an errno.
int openTerminal(Terminal& terminal) {
  terminal.primary.reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!terminal.primary || ::grantpt(terminal.primary.get()) != 0 ||
      ::unlockpt(terminal.primary.get()) != 0) {
    return errno;
  }
  terminal.secondary.reset(::ioctl(terminal.primary.get(), TIOCGPTPEER, O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!terminal.secondary || !moveAboveStandardStreams(terminal.secondary)) return errno;
  const int flags = ::fcntl(terminal.primary.get(), F_GETFL);
  if (flags < 0 || ::fcntl(terminal.primary.get(), F_SETFL, flags | O_NONBLOCK) < 0) return errno;
  return 0;
}

// Everything the child needs, prepared before the fork: after it, the child
// may only make async-signal-safe calls.
struct ChildPlan {
  const char* path;
  char* const* argv;
  char* const* environment;
  int terminal;
  int statusFd;  // close-on-exec: end of file tells the parent exec succeeded
};

[[noreturn]] void reportAndExit(int statusFd) noexcept {
  const int error = errno;
  // Should the report be lost, the caller still sees the program end with 127.
  static_cast<void>(::write(statusFd, &error, sizeof error));
  ::_exit(127);
}

void resetSignals() noexcept {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal) ::sigaction(signal, &action, nullptr);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);  // NOLINT(concurrency-mt-unsafe): the child has one thread
}

[[noreturn]] void runChild(const ChildPlan& plan) noexcept {
  resetSignals();
  if (::setsid() < 0 || ::ioctl(plan.terminal, TIOCSCTTY, 0) < 0) reportAndExit(plan.statusFd);
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (::dup2(plan.terminal, fd) < 0) reportAndExit(plan.statusFd);
  }
  if (::chdir("/") != 0) reportAndExit(plan.statusFd);
  // Descriptors others opened without close-on-exec must not reach the program either.
  const auto status = static_cast<unsigned>(plan.statusFd);
  if (status > STDERR_FILENO + 1) ::close_range(STDERR_FILENO + 1, status - 1, 0);
  ::close_range(status + 1, ~0U, 0);
  ::execve(plan.path, plan.argv, plan.environment);
  reportAndExit(plan.statusFd);
}

void appendWithoutCopies(std::string& buffer, std::string_view bytes) {
  if (buffer.size() + bytes.size() > buffer.capacity()) {
    std::string larger;
    larger.reserve(std::max(buffer.capacity() * 2, buffer.size() + bytes.size()));
    larger.append(buffer);
    secureWipe(buffer);
    buffer.swap(larger);
  }
  buffer.append(bytes);
}

}  // namespace

PseudoTerminalProcess::PseudoTerminalProcess(const std::string& executable,
                                             const std::vector<std::string>& arguments) {
  start(executable, arguments);
}

PseudoTerminalProcess::~PseudoTerminalProcess() { kill(); }

void PseudoTerminalProcess::fail(StartFailure stage, int error) noexcept {
  failure_ = stage;
  startError_ = error != 0 ? error : EIO;
}

void PseudoTerminalProcess::start(const std::string& executable, const std::vector<std::string>& arguments) {
  Terminal terminal;
  if (const int error = openTerminal(terminal); error != 0) return fail(StartFailure::terminal, error);
  std::array<int, 2> pipeFds{};
  if (::pipe2(pipeFds.data(), O_CLOEXEC) != 0) return fail(StartFailure::launch, errno);
  UniqueFd statusRead(pipeFds[0]);
  UniqueFd statusWrite(pipeFds[1]);
  if (!moveAboveStandardStreams(statusWrite)) return fail(StartFailure::launch, errno);

  const auto argv = internal::argumentVector(executable, arguments);
  char* const emptyEnvironment[] = {nullptr};
  const ChildPlan plan{executable.c_str(), argv.data(), emptyEnvironment, terminal.secondary.get(),
                       statusWrite.get()};
  // Blocked across the fork, so none of our handlers runs in the child before it resets them.
  sigset_t all;
  sigset_t previous;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &previous);
  const pid_t pid = ::fork();
  if (pid == 0) runChild(plan);
  const int forkError = errno;
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (pid < 0) return fail(StartFailure::launch, forkError);

  pid_ = pid;
  reaped_ = false;
  statusWrite.reset();
  // Only the child holds the terminal now, so its output ends when the child's does.
  terminal.secondary.reset();
  int childError = 0;
  const ssize_t got =
      retryOnInterrupt([&] { return ::read(statusRead.get(), &childError, sizeof childError); });
  if (got != 0) {
    reap(0);
    return fail(StartFailure::launch, got > 0 ? childError : errno);
  }
  terminal_ = std::move(terminal.primary);
  pidfd_.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
}

bool PseudoTerminalProcess::readAvailable(std::string& buffer) {
  if (outputEnded_ || !terminal_) return false;
  std::array<char, kReadChunk> chunk{};
  for (;;) {
    const ssize_t got = retryOnInterrupt([&] { return ::read(terminal_.get(), chunk.data(), chunk.size()); });
    if (got > 0) {
      appendWithoutCopies(buffer, {chunk.data(), static_cast<std::size_t>(got)});
      continue;
    }
    // 0 or EIO: the other side is closed for good.
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    outputEnded_ = true;
    break;
  }
  ::explicit_bzero(chunk.data(), chunk.size());
  return !outputEnded_;
}

bool PseudoTerminalProcess::writeAll(std::string_view bytes, std::chrono::milliseconds timeout) noexcept {
  if (!terminal_) return false;
  const auto deadline = Steady::now() + timeout;
  while (!bytes.empty()) {
    const ssize_t written =
        retryOnInterrupt([&] { return ::write(terminal_.get(), bytes.data(), bytes.size()); });
    if (written > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
      continue;
    }
    if (written < 0 && errno != EAGAIN && errno != EWOULDBLOCK) return false;
    const int left = millisecondsUntil(deadline);
    if (left == 0) return false;
    pollfd room{terminal_.get(), POLLOUT, 0};
    ::poll(&room, 1, left);
  }
  return true;
}

void PseudoTerminalProcess::waitForOutputOrExit(std::chrono::milliseconds timeout) noexcept {
  if (hasExited()) return;
  std::array<pollfd, 2> fds{{{outputEnded_ ? -1 : terminal_.get(), POLLIN, 0}, {pidfd_.get(), POLLIN, 0}}};
  int wait = milliseconds(timeout);
  if (!pidfd_) wait = std::min(wait, kExitPollMilliseconds);
  ::poll(fds.data(), fds.size(), wait);
}

bool PseudoTerminalProcess::hasExited() noexcept {
  reap(WNOHANG);
  return reaped_;
}

bool PseudoTerminalProcess::waitForExit(std::chrono::milliseconds timeout) noexcept {
  const auto deadline = Steady::now() + timeout;
  while (!hasExited()) {
    const int left = millisecondsUntil(deadline);
    if (left == 0) return false;
    pollfd exit{pidfd_.get(), POLLIN, 0};
    ::poll(&exit, 1, pidfd_ ? left : std::min(left, kExitPollMilliseconds));
  }
  return true;
}

// Until the child is reaped its pid also names its session's process group,
// so the signal cannot reach an unrelated group that reuses the number.
void PseudoTerminalProcess::terminate() const noexcept {
  if (!reaped_) ::kill(-pid_, SIGTERM);
}

void PseudoTerminalProcess::kill() noexcept {
  if (reaped_) return;
  ::kill(-pid_, SIGKILL);
  reap(0);
}

std::optional<int> PseudoTerminalProcess::exitCode() const noexcept {
  if (!status_) return std::nullopt;
  if (WIFEXITED(*status_)) return WEXITSTATUS(*status_);
  if (WIFSIGNALED(*status_)) return WTERMSIG(*status_);
  return std::nullopt;
}

void PseudoTerminalProcess::reap(int options) noexcept {
  if (reaped_) return;
  int status = 0;
  const pid_t result = retryOnInterrupt([&] { return ::waitpid(pid_, &status, options); });
  if (result == 0) return;  // still running
  reaped_ = true;
  // ECHILD: SIGCHLD is ignored and the kernel reaped it; the status is lost.
  if (result == pid_) status_ = status;
}

}  // namespace harborkeeper
