#pragma once

// What the integration harnesses share: a long-running child with its output in
// a log file, and waiting on what that log says. Test code only.

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "core/platform/unique_fd.h"

namespace harborkeeper::testing_support {

using namespace std::chrono_literals;

// Polls `condition` every 10 ms until it holds or `limit` passes.
inline bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = 5s) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(10ms);
  return condition();
}

inline std::size_t linesContaining(const std::string& text, std::string_view needle) {
  std::istringstream lines(text);
  std::size_t count = 0;
  for (std::string line; std::getline(lines, line);) count += line.find(needle) != std::string::npos;
  return count;
}

// argv[0] run with standard input /dev/null and standard output and error
// appended to `logFile`, killed when this process dies (or the thread that
// started it: keep the owner on a thread that outlives it).
class ChildProcess final {
 public:
  ChildProcess() = default;
  ChildProcess(std::vector<std::string> argv, const std::string& logFile, bool keepEnvironment) {
    const UniqueFd log(::open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    const UniqueFd nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (!log || !nothing) throw std::system_error(errno, std::generic_category(), logFile);
    // Everything the child needs is prepared before fork: it may only make system calls.
    std::vector<char*> arguments;
    for (std::string& argument : argv) arguments.push_back(argument.data());
    arguments.push_back(nullptr);
    char* const noEnvironment[] = {nullptr};
    char* const* environment = keepEnvironment ? environ : noEnvironment;
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (pid_ == 0) {
      // A test that crashes must not leave a listening server behind.
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (::getppid() != parent) ::_exit(127);
      ::dup2(nothing.get(), 0);
      ::dup2(log.get(), 1);
      ::dup2(log.get(), 2);
      ::close_range(3, ~0U, 0);
      ::execve(arguments[0], arguments.data(), environment);
      ::_exit(127);
    }
  }
  ChildProcess(ChildProcess&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
  ChildProcess& operator=(ChildProcess&& other) noexcept {
    if (this != &other) {
      stop();
      pid_ = std::exchange(other.pid_, -1);
    }
    return *this;
  }
  ~ChildProcess() { stop(SIGKILL); }

  [[nodiscard]] pid_t pid() const noexcept { return pid_; }  // -1 once reaped
  [[nodiscard]] bool hasExited() {
    if (pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == pid_) pid_ = -1;
    return pid_ < 0;
  }
  // Sends `signal` and waits for the child to exit; its wait status.
  int stop(int signal = SIGTERM) {
    int status = -1;
    if (pid_ > 0 && ::kill(pid_, signal) == 0 && ::waitpid(pid_, &status, 0) == pid_) pid_ = -1;
    return status;
  }

 private:
  pid_t pid_ = -1;
};

}  // namespace harborkeeper::testing_support
