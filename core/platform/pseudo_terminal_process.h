#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/platform/unique_fd.h"

namespace harborkeeper {

// A program running on a pseudo-terminal of its own: the terminal is its
// controlling terminal and its standard input, output and error, so it can
// ask for a password as it would of a person. The child starts with an empty
// environment, in "/", as the leader of a new session, with default signal
// dispositions, an empty signal mask and no descriptors beyond 0-2; it is run
// by execve alone, no shell.
//
// Never leaves a zombie or a running child behind: the destructor kills and
// reaps it. One owner; not for concurrent use. Callers must not set SIGCHLD to
// SIG_IGN (the exit status would be lost and reported as unknown).
class PseudoTerminalProcess final {
 public:
  enum class StartFailure {
    none,
    terminal,  // no pseudo-terminal could be had
    launch,    // the program could not be started (fork or exec failed)
  };

  // Starts `executable` (an absolute path, also passed as argv[0]) with
  // `arguments`. Never throws for a system failure: see startFailure().
  PseudoTerminalProcess(const std::string& executable, const std::vector<std::string>& arguments);
  PseudoTerminalProcess(const PseudoTerminalProcess&) = delete;
  PseudoTerminalProcess& operator=(const PseudoTerminalProcess&) = delete;
  ~PseudoTerminalProcess();

  [[nodiscard]] StartFailure startFailure() const noexcept { return failure_; }
  // The errno of the failed step; 0 once started.
  [[nodiscard]] int startError() const noexcept { return startError_; }

  // Appends all output available now. Returns false once the output has
  // ended: everyone holding the terminal has closed it. Output may echo a
  // secret, so growing `buffer` leaves no copy of it in freed memory.
  bool readAvailable(std::string& buffer);
  // Writes every byte, waiting at most `timeout` for room; false if not all
  // of them could be written.
  bool writeAll(std::string_view bytes, std::chrono::milliseconds timeout) noexcept;
  // Returns when output is ready to read, the child has exited, or `timeout`
  // has passed, whichever comes first.
  void waitForOutputOrExit(std::chrono::milliseconds timeout) noexcept;

  // Does not block. Reaps the child once it has exited and keeps its status.
  bool hasExited() noexcept;
  // True if the child exited within `timeout`.
  bool waitForExit(std::chrono::milliseconds timeout) noexcept;
  // SIGTERM to the child's session (process group), if it has not been reaped.
  void terminate() const noexcept;
  // SIGKILL to the child's process group, then reaps it.
  void kill() noexcept;
  // The exit status, or the terminating signal's number; nothing while the
  // child runs or when its status was lost.
  [[nodiscard]] std::optional<int> exitCode() const noexcept;

 private:
  void start(const std::string& executable, const std::vector<std::string>& arguments);
  void fail(StartFailure stage, int error) noexcept;
  void reap(int options) noexcept;

  StartFailure failure_ = StartFailure::none;
  int startError_ = 0;
  pid_t pid_ = -1;
  bool reaped_ = true;
  bool outputEnded_ = false;
  std::optional<int> status_;
  UniqueFd terminal_;  // our (primary) end, non-blocking
  UniqueFd pidfd_;     // readable once the child has exited; may be absent
};

}  // namespace harborkeeper
