#include "bench/soak/soak_harness.h"

#include <signal.h>

#include <stdexcept>

#include "core/heartbeat/docker_heartbeat_configuration.h"
#include "core/platform/state_file_test_support.h"

#include "tests/integration/child_process.h"
#include "bench/soak/no_content_server.h"
#include "tests/integration/throwaway_user.h"

namespace harborkeeper::testing_support {

namespace {

void installTool(const fs::path& from, const fs::path& to) {
  fs::copy_file(from, to);
  fs::permissions(to, fs::perms(0755));
}

}  // namespace

SoakEnvironment::SoakEnvironment(const SoakSetup& setup)
    : helperBinary_(setup.helperBinary),
      pamDirectory_(setup.pamDirectory),
      directory_(std::make_unique<TemporaryDirectory>()),
      passwordCore_(randomLetters(14)),
      // Quotes, a backslash and non-ASCII letters around the part leak scans look for.
      password_(" soak " + passwordCore_ + " '\"\\\u00e9\u00df "),
      secretCore_(randomLetters(24)),
      profile_("soak-profile") {
  const fs::path dir = directory_->path();
  fs::create_directory(dir / "tools");
  fs::permissions(dir / "tools", fs::perms(0700));
  installTool(fs::path(setup.toolsDirectory) / "fdesetup_standin.py", dir / "tools/fdesetup");
  installTool(fs::path(setup.toolsDirectory) / "pmset_standin.sh", dir / "tools/pmset");
  fs::create_directory(dir / "state");
  fs::permissions(dir / "state", fs::perms(0700));
  user_ = std::make_unique<ThrowawayUser>(password_);
  writeRaw(dir / "tools/list.out", user_->name() + ",2F1C3B5A-0000-4000-8000-000000000001\n",
           fs::perms(0644));
  endpoint_ = std::make_unique<NoContentServer>();
  start();
}

SoakEnvironment::~SoakEnvironment() = default;

void SoakEnvironment::start() {
  const fs::path dir = directory_->path();
  const auto started = [&] { return linesContaining(log(), " started on "); };
  const std::size_t before = started();
  daemon_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{
          helperBinary_, "--socket", socket(), "--state-dir", stateDirectory(), "--trusted-clients",
          dir / "no-registry.plist", "--tool", "fdesetup=" + (dir / "tools/fdesetup").string(), "--tool",
          "pmset=" + (dir / "tools/pmset").string(), "--trust-client", fs::canonical("/proc/self/exe"),
          "--pam-dir", pamDirectory_, "--log", "stderr"},
      dir / "daemon.log", false);
  // Ready once it says so, without a probe connection of our own.
  if (!eventually([&] { return started() > before; }, std::chrono::seconds(10))) {
    throw std::runtime_error("the daemon did not start:\n" + log());
  }
}

int SoakEnvironment::stop() { return daemon_->stop(SIGTERM); }
bool SoakEnvironment::running() { return !daemon_->hasExited(); }
pid_t SoakEnvironment::pid() const { return daemon_->pid(); }
std::string SoakEnvironment::socket() const { return directory_->path() / "helper.sock"; }
fs::path SoakEnvironment::stateDirectory() const { return directory_->path() / "state"; }
std::string SoakEnvironment::log() const { return contentOf(directory_->path() / "daemon.log"); }
std::unique_ptr<ipc::HelperClient> SoakEnvironment::client() const {
  return ipc::HelperClient::connect(socket());
}
const std::string& SoakEnvironment::username() const { return user_->name(); }
std::string SoakEnvironment::heartbeatEndpoint() const { return endpoint_->url(); }
std::uint64_t SoakEnvironment::beatsReceived() const { return endpoint_->answered(); }

Bytes SoakEnvironment::heartbeatConfiguration() const {
  return DockerHeartbeatConfiguration{heartbeatEndpoint(), profile_, "soak secret " + secretCore_, 30}
      .encodeXml();
}

CrashLoopTarget SoakEnvironment::crashLoopTarget() {
  return {stateDirectory(),        socket(),   [this] { daemon_->stop(SIGKILL); },
          [this] { start(); },     username(), password(),
          heartbeatConfiguration()};
}

}  // namespace harborkeeper::testing_support
