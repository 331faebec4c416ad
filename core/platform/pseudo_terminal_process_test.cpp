#include "core/platform/pseudo_terminal_process.h"

#include <fcntl.h>
#include <signal.h>

#include <gtest/gtest.h>

#include "core/platform/command_runner_test_support.h"

namespace harborkeeper {
namespace {

// Everything the script prints until it exits, without the terminal's carriage returns.
std::string shellOutput(const std::string& script) {
  PseudoTerminalProcess child("/bin/sh", {"-c", script});
  std::string output;
  for (int i = 0; i < 1000 && (child.readAvailable(output) || !child.hasExited()); ++i) {
    child.waitForOutputOrExit(std::chrono::milliseconds(10));
  }
  std::erase(output, '\r');
  return output;
}

// Our own odd state (an ignored signal, all blocked, a descriptor without
// close-on-exec, another child's terminal) must not reach the child.
TEST(PseudoTerminalProcessTest, ChildStartsCleanOnItsOwnTerminal) {
  const UniqueFd inheritable(::open("/dev/null", O_RDONLY));
  ASSERT_TRUE(inheritable);
  sigset_t blocked;
  sigset_t previousMask;
  ::sigfillset(&blocked);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &previousMask);
  const auto previousUsr1 = ::signal(SIGUSR1, SIG_IGN);
  {
    // Left running, and deaf to SIGTERM: the destructor still ends and reaps it.
    const PseudoTerminalProcess other("/bin/sh", {"-c", "trap '' TERM; exec /bin/sleep 10"});
    // Nothing in the environment; the ':' keeps the shell from replacing itself by ls.
    EXPECT_EQ(
        shellOutput("/bin/cat /proc/$$/environ; /bin/pwd; /bin/ls -1 /proc/$$/fd; :; "
                    "read -r pid comm state ppid group session rest </proc/$$/stat; [ $session = $$ ] && "
                    "[ -t 0 ] && [ -t 1 ] && [ -t 2 ] && : </dev/tty && "
                    "exec /bin/grep -E '^Sig(Blk|Ign):' /proc/self/status"),
        "/\n0\n1\n2\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
  }
  static_cast<void>(::signal(SIGUSR1, previousUsr1));
  ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  EXPECT_TRUE(testing_support::hasNoChildren());
}

}  // namespace
}  // namespace harborkeeper
