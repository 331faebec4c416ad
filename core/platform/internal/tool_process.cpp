#include "core/platform/internal/tool_process.h"

#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/platform/internal/retry.h"

namespace harborkeeper::internal {

ToolProcess::ToolProcess(pid_t pid) noexcept
    : pid_(pid), pidfd_(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))) {}

ToolProcess::~ToolProcess() {
  if (reaped_) return;
  signalGroup(SIGKILL);
  reap();
}

void ToolProcess::checkExited() noexcept {
  siginfo_t info{};
  if (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
      info.si_pid == pid_) {
    exited_ = true;
  }
}

void ToolProcess::signalGroup(int signal) const noexcept {
  if (!reaped_) ::kill(-pid_, signal);
}

void ToolProcess::reap() noexcept {
  int status = 0;
  const pid_t result = retryOnInterrupt([&] { return ::waitpid(pid_, &status, 0); });
  reaped_ = true;
  exited_ = true;
  // ECHILD: the caller set SIGCHLD to SIG_IGN and the kernel reaped it.
  if (result == pid_) status_ = status;
}

std::optional<int> ToolProcess::exitCode() const noexcept {
  if (!status_) return std::nullopt;
  if (WIFEXITED(*status_)) return WEXITSTATUS(*status_);
  if (WIFSIGNALED(*status_)) return WTERMSIG(*status_);
  return std::nullopt;
}

}  // namespace harborkeeper::internal
