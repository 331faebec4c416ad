#include "tests/integration/daemon_harness.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "core/foundation/plist.h"
#include "core/platform/state_file_test_support.h"
#include "core/protection/helper_constants.h"

namespace harborkeeper::testing_support {

namespace {

using Clock = std::chrono::steady_clock;

plist::Value registryEntry(const std::string& path) {
  return plist::Dictionary{{"path", path},
                           {"identifier", std::string(HelperConstants::appBundleIdentifier)},
                           {"teamIdentifier", std::string(HelperConstants::developerTeamIdentifier)}};
}

// Our own environment and a variable of its own, so a daemon that handed its
// environment on to a tool would be caught by the stand-in.
std::vector<char*> daemonEnvironment() {
  static char marker[] = "HARBORKEEPER_TEST_MARKER=not-for-tools";
  std::vector<char*> environment;
  environment.reserve(64);
  for (char** variable = environ; *variable != nullptr; ++variable) environment.push_back(*variable);
  environment.push_back(marker);
  environment.push_back(nullptr);
  return environment;
}

pid_t spawnDaemon(std::vector<std::string> arguments, const fs::path& logPath) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_adddup2(&actions, 2, 1);
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  const int error = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), daemonEnvironment().data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::system_error(error, std::generic_category(), "posix_spawn harborkeeper-helper");
  return pid;
}

bool exited(pid_t pid, int& status) { return ::waitpid(pid, &status, WNOHANG) == pid; }

}  // namespace

DaemonHarness::DaemonHarness(const DaemonOptions& options) {
  std::string pattern = "/tmp/harborkeeper-daemon-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  directory_ = pattern;
  fs::create_directory(stateDirectory());
  fs::permissions(stateDirectory(), fs::perms(0700));
  copyExecutable(fs::path(HARBORKEEPER_TEST_TOOLS_DIR) / options.fdesetup, directory_ / "tools", "fdesetup",
                 fs::perms(0755));
  registerClients({});
}

DaemonHarness::~DaemonHarness() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  std::error_code ignored;
  fs::remove_all(directory_, ignored);
}

void DaemonHarness::start() {
  pid_ = spawnDaemon({HARBORKEEPER_HELPER_BIN, "--socket", socketPath(), "--state-dir", stateDirectory(),
                      "--trusted-clients", (directory_ / "trusted-clients.plist").string(), "--tool",
                      "fdesetup=" + (directory_ / "tools/fdesetup").string(), "--tool", "pmset=/bin/true",
                      "--trust-client", fs::canonical("/proc/self/exe").string(), "--log", "stderr"},
                     directory_ / "daemon.log");
  const auto deadline = Clock::now() + 10s;
  int status = 0;
  while (Clock::now() < deadline) {
    if (exited(pid_, status)) {
      pid_ = -1;
      throw std::runtime_error("harborkeeper-helper exited with status " + std::to_string(status) + ":\n" +
                               log());
    }
    try {
      if (fs::exists(socketPath()) && connectRaw()) return;
    } catch (const std::system_error&) {
    }
    std::this_thread::sleep_for(10ms);
  }
  throw std::runtime_error("harborkeeper-helper was not ready within 10 s:\n" + log());
}

int DaemonHarness::signalAndWait(int signal) {
  ::kill(pid_, signal);
  int status = 0;
  if (!eventually([&] { return exited(pid_, status); }, 10s)) {
    throw std::runtime_error("harborkeeper-helper still runs 10 s after signal " + std::to_string(signal));
  }
  pid_ = -1;
  return status;
}

void DaemonHarness::registerClients(const std::vector<std::string>& extraClients) const {
  plist::Array entries{registryEntry(builtCli())};
  for (const std::string& path : extraClients) entries.push_back(registryEntry(path));
  writeRaw(directory_ / "trusted-clients.plist", toString(plist::encode(entries, plist::Format::xml)),
           fs::perms(0644));
}

std::string DaemonHarness::log() const { return contentOf(directory_ / "daemon.log"); }

std::size_t DaemonHarness::logLines(std::string_view text) const {
  std::istringstream lines(log());
  std::size_t count = 0;
  for (std::string line; std::getline(lines, line);) count += line.find(text) != std::string::npos;
  return count;
}

std::string DaemonHarness::toolInvocations() const { return contentOf(directory_ / "tools/invocations.log"); }

CommandResult DaemonHarness::cli(const std::vector<std::string>& arguments,
                                 const std::string& executable) const {
  std::vector<std::string> all{"--socket", socketPath()};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return CommandRunner(30).run(executable, all);
}

UniqueFd DaemonHarness::connectRaw() const {
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socketPath().c_str(), sizeof(address.sun_path) - 1);
  if (!socket || ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    throw std::system_error(errno, std::generic_category(), "connect " + socketPath());
  }
  return socket;
}

std::unique_ptr<ipc::HelperClient> DaemonHarness::client() const {
  return ipc::HelperClient::connect(socketPath());
}

std::string DaemonHarness::builtCli() { return fs::canonical(HARBORKEEPER_CLI_BIN).string(); }

void DaemonTest::SetUp() {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "needs root: the daemon serves only root-owned clients and keeps root-owned state";
  }
}

DaemonHarness& DaemonTest::startDaemon(const DaemonOptions& options) {
  daemon_.emplace(options);
  daemon_->start();
  return *daemon_;
}

bool sendAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

Closure waitForClose(int fd, std::chrono::milliseconds limit) {
  Closure closure;
  const auto start = Clock::now();
  char buffer[4096];
  while (!closure.closed) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(start + limit - Clock::now());
    pollfd entry{fd, POLLIN, 0};
    if (left.count() <= 0 || ::poll(&entry, 1, static_cast<int>(left.count())) == 0) break;
    const ssize_t got = ::recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
    if (got > 0) closure.received.append(buffer, static_cast<std::size_t>(got));
    closure.closed = got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN);
  }
  closure.after = Clock::now() - start;
  return closure;
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  while (!condition()) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

std::string copyExecutable(const fs::path& from, const fs::path& directory, const std::string& name,
                           fs::perms mode) {
  fs::create_directories(directory);
  fs::permissions(directory, fs::perms(0700));
  const fs::path to = directory / name;
  fs::copy_file(from, to, fs::copy_options::overwrite_existing);
  fs::permissions(to, mode);
  return fs::canonical(to).string();
}

}  // namespace harborkeeper::testing_support
