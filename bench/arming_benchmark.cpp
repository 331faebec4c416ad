// Where the time of one `arm` goes (fdesetup list, the PAM check, fdesetup
// authrestart, recording the status), how the daemon's request-to-reply time
// compares with the sum of those steps, and how fast the daemon lets anyone
// try wrong passwords. Needs root: it adds a throwaway local user for PAM.
//
//   sudo build/<dir>/bin/arming_bench [repetitions]
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "core/ipc/helper_client.h"
#include "core/platform/command_runner.h"
#include "core/protection/auth_restart.h"
#include "core/protection/protection_status_store.h"
#include "helper/local_account_password_verifier.h"

#include "tests/integration/child_process.h"
#include "tests/integration/throwaway_user.h"

namespace {

namespace fs = std::filesystem;
using namespace harborkeeper;
using SteadyClock = std::chrono::steady_clock;

double millisecondsOf(const std::function<void()>& step) {
  const auto start = SteadyClock::now();
  step();
  return std::chrono::duration<double, std::milli>(SteadyClock::now() - start).count();
}

double medianOf(int repetitions, const std::function<void()>& step) {
  std::vector<double> times;
  for (int i = 0; i < repetitions; ++i) times.push_back(millisecondsOf(step));
  std::sort(times.begin(), times.end());
  return times[times.size() / 2];
}

void require(bool condition, const std::string& what) {
  if (!condition) {
    std::cerr << "arming_bench: " << what << '\n';
    std::exit(1);
  }
}

// fdesetup that answers at once: the one user for list, success for authrestart.
fs::path writeInstantFdesetup(const fs::path& directory, const std::string& user) {
  const fs::path tool = directory / "fdesetup";
  std::ofstream(tool) << "#!/bin/sh\ncase \"$1\" in\n  list) echo " << user
                      << " ;;\n  authrestart) cat >/dev/null ;;\n  *) exit 2 ;;\nesac\n";
  fs::permissions(tool, fs::perms(0755));
  return tool;
}

std::unique_ptr<ipc::HelperClient> connectWhenReady(const std::string& socket) {
  for (int attempt = 0; attempt < 500; ++attempt) {
    try {
      return ipc::HelperClient::connect(socket);
    } catch (const ipc::HelperClientError&) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  require(false, "the daemon did not start");
  return nullptr;
}

void row(const std::string& name, double milliseconds, const std::string& note = "") {
  std::cout << std::left << std::setw(34) << name << std::right << std::setw(10) << std::fixed
            << std::setprecision(2) << milliseconds << " ms  " << note << '\n';
}

}  // namespace

int main(int argc, char** argv) {
  require(::geteuid() == 0, "needs root (it adds a throwaway user for PAM)");
  const int repetitions = argc > 1 ? std::max(3, std::atoi(argv[1])) : 15;
  std::string pattern = "/tmp/harborkeeper-arming-XXXXXX";
  require(::mkdtemp(pattern.data()) != nullptr, "mkdtemp failed");
  const fs::path dir = pattern;
  const std::string password = "bench " + testing_support::randomLetters(12);
  const testing_support::ThrowawayUser user(password);
  const fs::path fdesetup = writeInstantFdesetup(dir, user.name());

  const auto runner = std::make_shared<CommandRunner>(30);
  const PamAccountDirectory pam(HARBORKEEPER_PAM_DIR);
  const AuthRestartRunner armer(runner, fdesetup);
  const ProtectionStatusStore store((dir / "state").string(), 0);
  require(pam.verifyPassword(user.name(), password), "PAM refused the right password");

  const double spawn = medianOf(repetitions, [&] { (void)runner->run("/bin/true", {}); });
  const double list = medianOf(repetitions, [&] { (void)runner->run(fdesetup, {"list"}); });
  const double verify = medianOf(repetitions, [&] { (void)pam.verifyPassword(user.name(), password); });
  const double arm = medianOf(repetitions, [&] { (void)armer.armNextRestart(user.name(), password); });
  const double record = medianOf(repetitions, [&] {
    store.store(
        {HelperProtectionMode::nextRestart, true, Date(), "Harborkeeper armed authenticated restart."});
  });
  const double steps = list + verify + arm + record;

  const std::string socket = (dir / "helper.sock").string();
  testing_support::ChildProcess daemon(
      {HARBORKEEPER_HELPER_BIN, "--socket", socket, "--state-dir", (dir / "daemon-state").string(),
       "--trusted-clients", (dir / "no-registry.plist").string(), "--tool", "fdesetup=" + fdesetup.string(),
       "--trust-client", fs::canonical("/proc/self/exe").string(), "--pam-dir", HARBORKEEPER_PAM_DIR, "--log",
       "stderr"},
      (dir / "daemon.log").string(), false);
  const auto client = connectWhenReady(socket);
  require(client->armNextRestart(user.name(), password).success, "the daemon did not arm");
  const double endToEnd = medianOf(repetitions, [&] { (void)client->armNextRestart(user.name(), password); });

  constexpr int wrongAttempts = 6;
  const double wrongMilliseconds = millisecondsOf([&] {
    for (int i = 0; i < wrongAttempts; ++i) (void)client->armNextRestart(user.name(), password + "x");
  });
  const double attemptsPerSecond = wrongAttempts / (wrongMilliseconds / 1000.0);
  daemon.stop();
  fs::remove_all(dir);

  std::cout << "arm, medians of " << repetitions << " runs on " << std::thread::hardware_concurrency()
            << " cores\n";
  row("baseline: spawn /bin/true", spawn);
  row("fdesetup list", list, "(" + std::to_string(list / spawn).substr(0, 4) + "x a bare spawn)");
  row("password check (PAM, pam_unix)", verify);
  row("fdesetup authrestart", arm, "(" + std::to_string(arm / spawn).substr(0, 4) + "x a bare spawn)");
  row("record the status", record);
  row("sum of the steps", steps);
  row("daemon: request to reply", endToEnd,
      "(" + std::to_string(endToEnd / steps).substr(0, 4) + "x the sum of its steps; target <= 1.2x)");
  std::cout << "wrong passwords: " << std::setprecision(2) << attemptsPerSecond << " attempts/s over "
            << wrongAttempts << " tries (target <= 0.5/s: a rejection costs at least 2 s)\n";
  return 0;
}
