#include "core/platform/pseudo_terminal_process.h"

#include <fcntl.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core/platform/command_runner_test_support.h"
#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using namespace std::chrono_literals;

// Everything the script prints until it exits, without the terminal's carriage returns.
std::string shellOutput(const std::string& script) {
  PseudoTerminalProcess child("/bin/sh", {"-c", script});
  std::string output;
  const auto start = SteadyClock::now();
  while ((child.readAvailable(output) || !child.hasExited()) && secondsSince(start) < 10) {
    child.waitForOutputOrExit(10s);
  }
  output.erase(std::remove(output.begin(), output.end(), '\r'), output.end());
  return output;
}

// Our own odd state (an ignored and a blocked signal, a descriptor without
// close-on-exec) must not reach the child.
TEST(PseudoTerminalProcessTest, ChildStartsCleanOnItsOwnTerminal) {
  const UniqueFd inheritable(::open("/dev/null", O_RDONLY));
  ASSERT_GE(inheritable.get(), 0);
  sigset_t blocked;
  sigset_t previousMask;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGUSR2);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &previousMask);
  const auto previousUsr1 = ::signal(SIGUSR1, SIG_IGN);

  const std::pair<std::string, std::string> cases[] = {
      {"/bin/cat /proc/$$/environ", ""},
      {"/bin/pwd", "/\n"},
      // The trailing ':' keeps the shell from replacing itself by ls.
      {"/bin/ls -1 /proc/$$/fd; :", "0\n1\n2\n"},
      {"exec /bin/grep -E '^Sig(Blk|Ign):' /proc/self/status",
       "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"},
      {"[ -t 0 ] && [ -t 1 ] && [ -t 2 ] && : </dev/tty && echo terminal", "terminal\n"},
      {"read -r pid comm state ppid group session rest </proc/$$/stat; [ $session = $$ ] && echo leader",
       "leader\n"},
  };
  for (const auto& [script, expected] : cases) {
    EXPECT_EQ(shellOutput(script), expected) << script;
  }
  {
    // Left running, and deaf to SIGTERM: the destructor still ends and reaps it.
    const PseudoTerminalProcess abandoned("/bin/sh", {"-c", "trap '' TERM; exec /bin/sleep 10"});
  }
  static_cast<void>(::signal(SIGUSR1, previousUsr1));
  ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  EXPECT_TRUE(hasNoChildren());
}

}  // namespace
}  // namespace harborkeeper
