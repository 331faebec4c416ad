#pragma once

#include <cerrno>

namespace harborkeeper::internal {

// Calls `call` (a system call returning -1 and setting errno on failure) again
// for as long as a signal interrupts it; returns its first other result, with
// errno as that call left it.
template <class Call>
auto retryOnInterrupt(const Call& call) {
  for (;;) {
    const auto result = call();
    if (result != -1 || errno != EINTR) return result;
  }
}

}  // namespace harborkeeper::internal
