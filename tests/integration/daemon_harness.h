#pragma once

// The built harborkeeper-helper on a socket of its own, in a fresh root-only
// directory, with a stand-in fdesetup and a trusted-client registry that lists
// the built CLI. Test code only; needs root.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "core/foundation/plist.h"
#include "core/ipc/helper_client.h"
#include "core/platform/command_runner.h"
#include "core/platform/state_file_test_support.h"
#include "core/protection/helper_constants.h"

#include "tests/integration/child_process.h"

namespace harborkeeper::testing_support {

// Copies `from` to `to` (its directory made 0700) with `mode`; the copy's canonical path.
inline std::string copyExecutable(const fs::path& from, const fs::path& to, fs::perms mode) {
  fs::create_directories(to.parent_path());
  fs::permissions(to.parent_path(), fs::perms(0700));
  fs::copy_file(from, to);
  fs::permissions(to, mode);
  return fs::canonical(to).string();
}

// Exit code, standard output, standard error.
using CliOutcome = std::tuple<int, std::string, std::string>;

inline std::string builtCli() { return fs::canonical(HARBORKEEPER_CLI_BIN).string(); }

// A trusted-client registry that lists each of `paths` as the app.
inline std::string trustedClientRegistry(const std::vector<std::string>& paths) {
  plist::Array registry;
  for (const std::string& path : paths) {
    plist::Dictionary entry;
    entry.emplace("path", path);
    entry.emplace("identifier", std::string(HelperConstants::appBundleIdentifier));
    entry.emplace("teamIdentifier", std::string(HelperConstants::developerTeamIdentifier));
    registry.emplace_back(std::move(entry));
  }
  return toString(plist::encode(registry, plist::Format::xml));
}

class Daemon final {
 public:
  // Runs `fdesetup`, a file of the tools directory, as fdesetup, with `extraArguments` added to
  // its command line. The registry lists the built CLI and `extraClients`; this test program is
  // trusted besides, unless `trustThisProgram` is false. Returns once the socket accepts.
  explicit Daemon(const std::string& fdesetup = "fdesetup_lists_two_users.sh",
                  std::vector<std::string> extraClients = {},
                  const std::vector<std::string>& extraArguments = {}, bool trustThisProgram = true) {
    const std::string tool = copyExecutable(fs::path(HARBORKEEPER_TEST_TOOLS_DIR) / fdesetup,
                                            dir / "tools/fdesetup", fs::perms(0755));
    fs::create_directory(dir / "state");
    fs::permissions(dir / "state", fs::perms(0700));  // whatever the umask
    extraClients.push_back(builtCli());
    writeRaw(dir / "registry.plist", trustedClientRegistry(extraClients), fs::perms(0644));
    // A variable of our own in its environment, which the stand-in fdesetup must not see.
    // NOLINTNEXTLINE(concurrency-mt-unsafe): set before the daemon starts; no thread of ours reads it.
    ::setenv("HARBORKEEPER_TEST_MARKER", "not-for-tools", 1);
    arguments_ = {HARBORKEEPER_HELPER_BIN,
                  "--socket",
                  socket(),
                  "--state-dir",
                  dir / "state",
                  "--trusted-clients",
                  dir / "registry.plist",
                  "--tool",
                  "fdesetup=" + tool,
                  "--tool",
                  "pmset=/bin/true",
                  "--log",
                  "stderr"};
    if (trustThisProgram) {
      arguments_.insert(arguments_.end(), {"--trust-client", fs::canonical("/proc/self/exe").string()});
    }
    arguments_.insert(arguments_.end(), extraArguments.begin(), extraArguments.end());
    start();
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Sends `signal` and waits for the daemon to exit; its wait status.
  int stop(int signal) { return process_.stop(signal); }
  // A new daemon process on the same socket, state and tools; returns once it accepts.
  void restart(int signal = SIGTERM) {
    stop(signal);
    start();
  }

  // Runs the CLI with --socket and `arguments`, and `input` on its standard input.
  CliOutcome cli(std::vector<std::string> arguments, const std::string& executable = builtCli(),
                 std::optional<std::string_view> input = std::nullopt) const {
    arguments.insert(arguments.begin(), {"--socket", socket()});
    const CommandResult result = CommandRunner(30).run(executable, arguments, input);
    return {result.exitCode, result.standardOutput, result.standardError};
  }

  // Sends `bytes` on a new connection (then closes its writing side if asked) and reads until the
  // daemon closes it: what came back, or nothing if the connection is still open after `limit`.
  std::optional<std::string> sendRaw(std::string_view bytes, std::chrono::seconds limit,
                                     bool thenCloseWriting = false) const {
    const UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socket().copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    (void)::send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);  // the daemon may close first
    if (thenCloseWriting) ::shutdown(fd.get(), SHUT_WR);
    const timeval timeout{limit.count(), 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    std::string received;
    char buffer[4096];
    ssize_t got = 0;
    while ((got = ::recv(fd.get(), buffer, sizeof(buffer), 0)) > 0) received.append(buffer, std::size_t(got));
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return std::nullopt;
    return received;
  }

  std::unique_ptr<ipc::HelperClient> client() const { return ipc::HelperClient::connect(socket()); }

  [[nodiscard]] std::string socket() const { return dir / "helper.sock"; }
  [[nodiscard]] std::string log() const { return contentOf(dir / "daemon.log"); }
  [[nodiscard]] std::size_t logLines(std::string_view text) const { return linesContaining(log(), text); }
  // The arguments of each run of the stand-in fdesetup, one line per run.
  [[nodiscard]] std::string toolRuns() const { return contentOf(dir / "tools/invocations.log"); }

  const TemporaryDirectory directory;  // 0700 under /tmp (sticky): safe for the peer check
  const fs::path dir = directory.path();

 private:
  void start() {
    const std::size_t started = logLines(" started on ");
    process_ = ChildProcess(arguments_, dir / "daemon.log", true);
    // Ready once it says so, without a probe connection that would count against its limit.
    EXPECT_TRUE(eventually([&] { return logLines(" started on ") > started; }, 10s))
        << "not ready:\n" + log();
  }

  std::vector<std::string> arguments_;
  ChildProcess process_;
};

// Every test of the daemon: skipped unless root.
class DaemonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: the daemon serves only root-owned clients";
  }
};

}  // namespace harborkeeper::testing_support
