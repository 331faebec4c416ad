#include "core/platform/internal/process_spawn.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <optional>
#include <system_error>
#include <utility>

namespace harborkeeper::internal {
namespace {

[[noreturn]] void throwErrno(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// Keeps our descriptors off 0-2, so the child's dup2 actions cannot clobber
// one another when the caller runs with a standard stream closed.
UniqueFd aboveStandardStreams(UniqueFd fd) {
  if (fd.get() > STDERR_FILENO) return fd;
  const int moved = ::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (moved < 0) throwErrno("fcntl");
  return UniqueFd(moved);
}

void setNonBlocking(const UniqueFd& fd) {
  const int flags = ::fcntl(fd.get(), F_GETFL);
  if (flags < 0 || ::fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK) < 0) throwErrno("fcntl");
}

struct Pipe {
  UniqueFd readEnd;
  UniqueFd writeEnd;
};

// Both ends close on exec; only our own end is non-blocking, the tool's end
// behaves as an ordinary pipe.
Pipe makePipe(bool parentReads) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) throwErrno("pipe2");
  Pipe pipe{UniqueFd(fds[0]), UniqueFd(fds[1])};
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
  [[nodiscard]] const posix_spawnattr_t* get() const { return &attr_; }

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
  [[nodiscard]] const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  static void check(int error) {
    if (error != 0) throw std::system_error(error, std::generic_category(), "posix_spawn_file_actions");
  }
  posix_spawn_file_actions_t actions_;
};

}  // namespace

std::vector<char*> argumentVector(const std::string& executable, const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 2);
  // exec and posix_spawn take char* const[] for historical reasons; neither writes.
  argv.push_back(const_cast<char*>(executable.c_str()));
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  return argv;
}

LaunchedTool launchTool(const std::string& executable, const std::vector<std::string>& arguments,
                        bool withInput) {
  Pipe out = makePipe(true);
  Pipe err = makePipe(true);
  std::optional<Pipe> in;
  if (withInput) in = makePipe(false);

  FileActions actions;
  if (in) {
    actions.dup2(in->readEnd.get(), STDIN_FILENO);
  } else {
    actions.openDevNull(STDIN_FILENO);
  }
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
  if (error != 0) throw std::system_error(error, std::generic_category(), "posix_spawn");
  // The tool's ends close as the pipes go out of scope, so only the tool holds
  // them now and end of file means the tool closed them.
  return {pid, in ? std::move(in->writeEnd) : UniqueFd(), std::move(out.readEnd), std::move(err.readEnd)};
}

}  // namespace harborkeeper::internal
