#pragma once

// Starts the built harborkeeper-helper on a socket of its own, in a fresh
// root-only directory under /tmp, with stand-in tools and a trusted-client
// registry that lists the built CLI. Test code only; needs root.

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "core/ipc/helper_client.h"
#include "core/platform/command_runner.h"
#include "core/platform/unique_fd.h"

namespace harborkeeper::testing_support {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

struct DaemonOptions {
  // A file of the tools directory, run by the daemon as `fdesetup`.
  std::string fdesetup = "fdesetup_lists_two_users.sh";
};

class DaemonHarness final {
 public:
  // Lays out the directory: socket, state/, tools/fdesetup, the registry.
  explicit DaemonHarness(const DaemonOptions& options = {});
  ~DaemonHarness();  // kills a daemon still running, removes the directory
  DaemonHarness(const DaemonHarness&) = delete;
  DaemonHarness& operator=(const DaemonHarness&) = delete;

  // Returns once the socket accepts; throws std::runtime_error carrying the
  // daemon's log if it exits or is not ready within 10 s.
  void start();
  // Sends `signal` and returns the wait status; throws if it lasts over 10 s.
  int signalAndWait(int signal);

  [[nodiscard]] const fs::path& directory() const { return directory_; }
  [[nodiscard]] std::string socketPath() const { return (directory_ / "helper.sock").string(); }
  [[nodiscard]] std::string stateDirectory() const { return (directory_ / "state").string(); }
  // Rewrites the registry with the built CLI and `extraClients`; the daemon
  // re-reads it on every connection.
  void registerClients(const std::vector<std::string>& extraClients) const;

  [[nodiscard]] std::string log() const;
  // How many lines of the log contain `text`.
  [[nodiscard]] std::size_t logLines(std::string_view text) const;
  // One line per run of the stand-in fdesetup: its arguments.
  [[nodiscard]] std::string toolInvocations() const;

  // Runs the CLI (the built one unless named) with --socket and `arguments`.
  [[nodiscard]] CommandResult cli(const std::vector<std::string>& arguments,
                                  const std::string& executable = builtCli()) const;
  [[nodiscard]] UniqueFd connectRaw() const;
  [[nodiscard]] std::unique_ptr<ipc::HelperClient> client() const;

  static std::string builtCli();  // canonical path

 private:
  fs::path directory_;
  pid_t pid_ = -1;
};

// Every integration test of the daemon: skipped unless root.
class DaemonTest : public ::testing::Test {
 protected:
  void SetUp() override;
  DaemonHarness& startDaemon(const DaemonOptions& options = {});

  std::optional<DaemonHarness> daemon_;
};

// Writes all of `bytes` (no SIGPIPE); false when the peer is gone.
bool sendAll(int fd, std::string_view bytes);

// What arrived on a connection until the peer closed it (EOF or reset), or
// until `limit` passed with the connection still open.
struct Closure {
  bool closed = false;
  std::string received;
  std::chrono::steady_clock::duration after{};
};
Closure waitForClose(int fd, std::chrono::milliseconds limit);

// Polls `condition` every 10 ms until it holds or `limit` passes.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = 5s);

// Copies `from` into `directory` (created 0700) as `name` with `mode`; the canonical path.
std::string copyExecutable(const fs::path& from, const fs::path& directory, const std::string& name,
                           fs::perms mode);

}  // namespace harborkeeper::testing_support
