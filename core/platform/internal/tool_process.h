#pragma once

#include <sys/types.h>

#include <optional>

#include "core/platform/unique_fd.h"

namespace harborkeeper::internal {

// A launched tool, until it is reaped. Until then its pid also names its
// process group, so signalling the group cannot hit an unrelated, recycled one.
class ToolProcess final {
 public:
  explicit ToolProcess(pid_t pid) noexcept;
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;
  // Any early way out (an exception) still leaves no process and no zombie.
  ~ToolProcess();

  // Readable once the tool has exited; -1 when that is known already or the
  // kernel has no pidfds.
  [[nodiscard]] int pidfd() const noexcept { return exited_ ? -1 : pidfd_.get(); }
  [[nodiscard]] bool hasPidfd() const noexcept { return pidfd_.isOpen(); }
  [[nodiscard]] bool exited() const noexcept { return exited_; }
  void markExited() noexcept { exited_ = true; }

  // Notices an exit without reaping, for kernels without pidfds.
  void checkExited() noexcept;

  void signalGroup(int signal) const noexcept;

  // Blocks: only called once the tool has exited or been sent SIGKILL.
  void reap() noexcept;

  // The exit status, the terminating signal's number, or nothing if unknown.
  [[nodiscard]] std::optional<int> exitCode() const noexcept;

 private:
  pid_t pid_;
  UniqueFd pidfd_;
  bool exited_ = false;
  bool reaped_ = false;
  std::optional<int> status_;
};

}  // namespace harborkeeper::internal
