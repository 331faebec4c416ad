#include "core/platform/command_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "core/foundation/text.h"

namespace harborkeeper {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr char kRelativePathMessage[] = "CommandRunner requires an absolute executable path.";
constexpr char kOutOfMemoryMessage[] = "Could not run the command: out of memory.";
// How long a tool gets between SIGTERM and SIGKILL once its limit has passed.
constexpr auto kTerminateGrace = 1s;
// How long leftover output may take to arrive once the tool's group is dead.
constexpr auto kDrainGrace = 50ms;
// Keeps the deadline arithmetic far from overflow; about 31 years.
constexpr double kLongestLimitSeconds = 1e9;
// Without a pidfd the child's exit is noticed by polling at this period.
constexpr int kExitPollMilliseconds = 5;

[[noreturn]] void throwErrno(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

class Fd final {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    if (this != &other) reset(std::exchange(other.fd_, -1));
    return *this;
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(); }

  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] bool isOpen() const { return fd_ >= 0; }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// Keeps our descriptors off 0-2, so the child's dup2 actions cannot clobber
// one another when the caller runs with a standard stream closed.
Fd aboveStandardStreams(Fd fd) {
  if (fd.get() > STDERR_FILENO) return fd;
  const int moved = ::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (moved < 0) throwErrno("fcntl");
  return Fd(moved);
}

void setNonBlocking(const Fd& fd) {
  const int flags = ::fcntl(fd.get(), F_GETFL);
  if (flags < 0 || ::fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK) < 0) throwErrno("fcntl");
}

struct Pipe {
  Fd readEnd;
  Fd writeEnd;
};

// Both ends close on exec; only our own end is non-blocking, the tool's end
// behaves as an ordinary pipe.
Pipe makePipe(bool parentReads) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) throwErrno("pipe2");
  Pipe pipe{Fd(fds[0]), Fd(fds[1])};
  pipe.readEnd = aboveStandardStreams(std::move(pipe.readEnd));
  pipe.writeEnd = aboveStandardStreams(std::move(pipe.writeEnd));
  setNonBlocking(parentReads ? pipe.readEnd : pipe.writeEnd);
  return pipe;
}

class SpawnAttributes final {
 public:
  SpawnAttributes() {
    if (::posix_spawnattr_init(&attr_) != 0) throw std::bad_alloc();
    sigset_t all;
    sigset_t none;
    ::sigfillset(&all);
    ::sigemptyset(&none);
    ::posix_spawnattr_setpgroup(&attr_, 0);
    ::posix_spawnattr_setsigdefault(&attr_, &all);
    ::posix_spawnattr_setsigmask(&attr_, &none);
    ::posix_spawnattr_setflags(&attr_,
                               POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
  ~SpawnAttributes() { ::posix_spawnattr_destroy(&attr_); }
  const posix_spawnattr_t* get() const { return &attr_; }

 private:
  posix_spawnattr_t attr_;
};

class FileActions final {
 public:
  FileActions() {
    if (::posix_spawn_file_actions_init(&actions_) != 0) throw std::bad_alloc();
  }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  ~FileActions() { ::posix_spawn_file_actions_destroy(&actions_); }

  void dup2(int fd, int target) { check(::posix_spawn_file_actions_adddup2(&actions_, fd, target)); }
  void openDevNull(int target) {
    check(::posix_spawn_file_actions_addopen(&actions_, target, "/dev/null", O_RDONLY, 0));
  }
  void chdir(const char* path) { check(::posix_spawn_file_actions_addchdir_np(&actions_, path)); }
  void closeFrom(int lowest) { check(::posix_spawn_file_actions_addclosefrom_np(&actions_, lowest)); }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  static void check(int error) {
    if (error != 0) throw std::system_error(error, std::generic_category(), "posix_spawn_file_actions");
  }
  posix_spawn_file_actions_t actions_;
};

// The launched tool. Until it is reaped its pid also names its process group,
// so signalling the group cannot hit an unrelated, recycled group.
class Child final {
 public:
  explicit Child(pid_t pid) : pid_(pid), pidfd_(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))) {}
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  // Any early way out (an exception) still leaves no process and no zombie.
  ~Child() {
    if (reaped_) return;
    signalGroup(SIGKILL);
    reap();
  }

  [[nodiscard]] int pidfd() const { return exited_ ? -1 : pidfd_.get(); }
  [[nodiscard]] bool hasPidfd() const { return pidfd_.isOpen(); }
  [[nodiscard]] bool exited() const { return exited_; }
  void markExited() { exited_ = true; }

  // Notices an exit without reaping, for kernels without pidfds.
  void checkExited() {
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
        info.si_pid == pid_)
      exited_ = true;
  }

  void signalGroup(int signal) const {
    if (!reaped_) ::kill(-pid_, signal);
  }

  // Blocks: only called once the tool has exited or been sent SIGKILL.
  void reap() {
    int status = 0;
    pid_t result;
    do {
      result = ::waitpid(pid_, &status, 0);
    } while (result < 0 && errno == EINTR);
    reaped_ = true;
    exited_ = true;
    // ECHILD: the caller set SIGCHLD to SIG_IGN and the kernel reaped it.
    if (result == pid_) status_ = status;
  }

  // The exit status, the terminating signal's number, or nothing if unknown.
  [[nodiscard]] std::optional<int> exitCode() const {
    if (!status_) return std::nullopt;
    if (WIFEXITED(*status_)) return WEXITSTATUS(*status_);
    if (WIFSIGNALED(*status_)) return WTERMSIG(*status_);
    return std::nullopt;
  }

 private:
  pid_t pid_;
  Fd pidfd_;
  bool exited_ = false;
  bool reaped_ = false;
  std::optional<int> status_;
};

// A write that fails with EPIPE instead of raising SIGPIPE: the signal is
// blocked on this thread for the write, and one it caused is consumed.
ssize_t writeWithoutSigpipe(int fd, const char* data, std::size_t size) {
  sigset_t pipeOnly;
  sigset_t previousMask;
  sigset_t pending;
  ::sigemptyset(&pipeOnly);
  ::sigaddset(&pipeOnly, SIGPIPE);
  ::sigpending(&pending);
  const bool alreadyPending = ::sigismember(&pending, SIGPIPE) == 1;
  ::pthread_sigmask(SIG_BLOCK, &pipeOnly, &previousMask);
  const ssize_t written = ::write(fd, data, size);
  const int savedErrno = errno;
  if (written < 0 && savedErrno == EPIPE && !alreadyPending) {
    const timespec noWait{};
    while (::sigtimedwait(&pipeOnly, nullptr, &noWait) < 0 && errno == EINTR) {
    }
  }
  ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  errno = savedErrno;
  return written;
}

// Feeds standard input straight from the caller's buffer: no copy of what may
// be a secret is ever made.
class InputFeeder final {
 public:
  InputFeeder(Fd fd, std::string_view input) : fd_(std::move(fd)), rest_(input) {
    if (rest_.empty()) fd_.reset();
  }
  [[nodiscard]] int fd() const { return fd_.get(); }
  void close() { fd_.reset(); }

  void writeMore() {
    while (fd_.isOpen()) {
      const ssize_t written = writeWithoutSigpipe(fd_.get(), rest_.data(), rest_.size());
      if (written < 0 && errno == EINTR) continue;
      if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
      if (written < 0) return close();  // EPIPE: the tool stopped reading.
      rest_.remove_prefix(static_cast<std::size_t>(written));
      if (rest_.empty()) close();
    }
  }

 private:
  Fd fd_;
  std::string_view rest_;
};

class OutputStream final {
 public:
  explicit OutputStream(Fd fd) : fd_(std::move(fd)) {}
  [[nodiscard]] int fd() const { return fd_.get(); }
  [[nodiscard]] bool atEnd() const { return !fd_.isOpen(); }
  [[nodiscard]] const std::string& bytes() const { return bytes_; }

  // Reads all that is buffered now; closes at end of file.
  void readAvailable() {
    constexpr std::size_t kChunk = 64 * 1024;
    while (fd_.isOpen()) {
      const std::size_t used = bytes_.size();
      bytes_.resize(used + kChunk);
      const ssize_t count = ::read(fd_.get(), bytes_.data() + used, kChunk);
      bytes_.resize(used + (count > 0 ? static_cast<std::size_t>(count) : 0));
      if (count < 0 && errno == EINTR) continue;
      if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
      if (count <= 0) fd_.reset();
    }
  }

 private:
  Fd fd_;
  std::string bytes_;
};

struct Session {
  Child& child;
  InputFeeder& input;
  OutputStream& out;
  OutputStream& err;
};

int millisecondsUntil(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, 60'000));
}

// One wait for any of the tool's pipes or its exit, then the work they allow.
void pollOnce(Session& session, Clock::time_point deadline) {
  std::array<pollfd, 4> fds{{{session.out.fd(), POLLIN, 0},
                             {session.err.fd(), POLLIN, 0},
                             {session.input.fd(), POLLOUT, 0},
                             {session.child.pidfd(), POLLIN, 0}}};
  int timeout = millisecondsUntil(deadline);
  const bool watchExitByPolling = !session.child.exited() && !session.child.hasPidfd();
  if (watchExitByPolling) timeout = std::min(timeout, kExitPollMilliseconds);
  if (::poll(fds.data(), fds.size(), timeout) < 0) {
    if (errno == EINTR) return;
    throw std::runtime_error(std::string("poll failed: ") + ::strerrordesc_np(errno) + ".");
  }
  if (fds[0].revents != 0) session.out.readAvailable();
  if (fds[1].revents != 0) session.err.readAvailable();
  if (fds[2].revents != 0) session.input.writeMore();
  if (fds[3].revents != 0) session.child.markExited();
  if (watchExitByPolling) session.child.checkExited();
}

template <class Done>
bool pumpUntil(Session& session, Clock::time_point deadline, Done done) {
  while (!done()) {
    if (Clock::now() >= deadline) return false;
    pollOnce(session, deadline);
  }
  return true;
}

// The tool has gone (or is being killed): keep what it left in the pipes, but
// do not wait on stragglers of its group that still hold them open.
void finish(Session& session, Clock::time_point drainDeadline) {
  session.input.close();
  session.out.readAvailable();
  session.err.readAvailable();
  if (!session.out.atEnd() || !session.err.atEnd()) session.child.signalGroup(SIGKILL);
  session.child.reap();
  pumpUntil(session, drainDeadline, [&] { return session.out.atEnd() && session.err.atEnd(); });
}

// A limit that is negative, NaN or infinite counts as 0: the tool is started
// and stopped at once, as if it had run out of time immediately.
double sanitizedLimit(double seconds) { return std::isfinite(seconds) && seconds > 0 ? seconds : 0.0; }

Clock::duration asDuration(double seconds) {
  return std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(std::min(seconds, kLongestLimitSeconds)));
}

std::string outputText(const OutputStream& stream) {
  return text::trimmed(text::repairedUtf8(stream.bytes()));
}

CommandResult launchFailure(const std::string& executable, int error) {
  const char* cause = ::strerrordesc_np(error);
  return {"", "Could not launch " + executable + ": " + (cause ? cause : "Unknown error") + ".", -1, false};
}

std::vector<char*> argumentVector(const std::string& executable, const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 2);
  argv.push_back(const_cast<char*>(executable.c_str()));
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  return argv;
}

CommandResult runTool(const std::string& executable, const std::vector<std::string>& arguments,
                      std::optional<std::string_view> standardInput, double limit) {
  const auto start = Clock::now();
  Pipe out = makePipe(true);
  Pipe err = makePipe(true);
  std::optional<Pipe> in;
  if (standardInput) in = makePipe(false);

  FileActions actions;
  if (in)
    actions.dup2(in->readEnd.get(), STDIN_FILENO);
  else
    actions.openDevNull(STDIN_FILENO);
  actions.dup2(out.writeEnd.get(), STDOUT_FILENO);
  actions.dup2(err.writeEnd.get(), STDERR_FILENO);
  actions.chdir("/");
  actions.closeFrom(STDERR_FILENO + 1);

  const SpawnAttributes attributes;
  const auto argv = argumentVector(executable, arguments);
  char* const emptyEnvironment[] = {nullptr};
  pid_t pid = -1;
  const int error =
      ::posix_spawn(&pid, executable.c_str(), actions.get(), attributes.get(), argv.data(), emptyEnvironment);
  if (error != 0) return launchFailure(executable, error);

  Child child(pid);
  // Only the tool may hold its ends now, so end of file means the tool closed them.
  out.writeEnd.reset();
  err.writeEnd.reset();
  InputFeeder input(in ? std::move(in->writeEnd) : Fd(), standardInput.value_or(""));
  if (in) in->readEnd.reset();
  OutputStream stdoutStream(std::move(out.readEnd));
  OutputStream stderrStream(std::move(err.readEnd));
  Session session{child, input, stdoutStream, stderrStream};

  const auto deadline = start + asDuration(limit);
  if (pumpUntil(session, deadline, [&] { return child.exited(); })) {
    finish(session, Clock::now() + kDrainGrace);
    const auto code = child.exitCode();
    if (!code)
      return {outputText(stdoutStream), "The exit status of " + executable + " is unknown.", -1, false};
    return {outputText(stdoutStream), outputText(stderrStream), *code, false};
  }

  child.signalGroup(SIGTERM);
  input.close();
  pumpUntil(session, deadline + kTerminateGrace, [&] { return child.exited(); });
  child.signalGroup(SIGKILL);
  finish(session, Clock::now() + kDrainGrace);
  return {outputText(stdoutStream),
          "Command timed out after " + CommandRunner::timeoutDescription(limit) + " seconds.", -2, true};
}

}  // namespace

CommandResult CommandRunner::run(const std::string& executable, const std::vector<std::string>& arguments,
                                 std::optional<std::string_view> standardInput,
                                 std::optional<double> timeout) const noexcept {
  try {
    if (executable.empty() || executable.front() != '/') return {"", kRelativePathMessage, -1, false};
    try {
      return runTool(executable, arguments, standardInput, sanitizedLimit(timeout.value_or(defaultTimeout_)));
    } catch (const std::bad_alloc&) {
      throw;
    } catch (const std::system_error& error) {
      // Only the set-up before the launch reports system errors this way.
      return launchFailure(executable, error.code().value());
    } catch (const std::exception& error) {
      return {"", "Could not run " + executable + ": " + error.what(), -1, false};
    }
  } catch (...) {
    // Out of memory, possibly while building a message: keep this path allocation-light.
    CommandResult result{"", "", -1, false};
    try {
      result.standardError = kOutOfMemoryMessage;
    } catch (...) {
    }
    return result;
  }
}

std::string CommandRunner::timeoutDescription(double seconds) {
  if (seconds == 0) return "0";  // also for -0.0
  const bool whole = std::isfinite(seconds) && std::floor(seconds) == seconds;
  const char* format = whole ? "%.0f" : "%.1f";
  // A whole number can have hundreds of digits.
  std::string description(static_cast<std::size_t>(std::snprintf(nullptr, 0, format, seconds)), '\0');
  std::snprintf(description.data(), description.size() + 1, format, seconds);
  return description;
}

}  // namespace harborkeeper
