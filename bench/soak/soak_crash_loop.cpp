// runCrashLoop: SIGKILL in the middle of a store, then proof that every state
// file is either absent or whole.

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <future>
#include <iomanip>
#include <ostream>
#include <random>
#include <thread>

#include "core/heartbeat/docker_heartbeat_configuration.h"
#include "core/ipc/helper_protocol.h"
#include "core/platform/command_runner.h"
#include "core/platform/state_file_test_support.h"
#include "core/protection/helper_constants.h"
#include "core/protection/protection_status.h"

#include "bench/soak/soak_harness.h"

namespace harborkeeper::testing_support {

namespace {

namespace selectors = ipc::selectors;
using SteadyClock = std::chrono::steady_clock;

constexpr std::string_view kStatusFile = HelperConstants::protectionStatusFileName;
constexpr std::string_view kHeartbeatFile = HelperConstants::dockerHeartbeatConfigurationFileName;
constexpr std::string_view kCredentialFile = "PersistentCredential.cred";
constexpr int kLongestKillDelayMilliseconds = 150;

struct OperationInfo {
  std::string_view name;
  std::string_view selector;
  // Configuring takes a few milliseconds: a run of them keeps the store busy
  // for the whole window in which the kill may come.
  int inFlight;
  std::string_view success;
};

const OperationInfo& infoOf(CrashOperation operation) {
  static const OperationInfo infos[] = {
      {"armNextRestart", selectors::armNextRestart, 1,
       "Harborkeeper armed authenticated restart for the next restart."},
      {"enablePersistentProtection", selectors::enablePersistentProtection, 1,
       "Persistent protection is enabled and the next restart is armed."},
      {"configureDockerHeartbeat", selectors::configureDockerHeartbeat, 30,
       "Docker heartbeat is configured."},
  };
  return infos[static_cast<std::size_t>(operation)];
}

plist::Array argumentsOf(CrashOperation operation, const CrashLoopTarget& target) {
  switch (operation) {
    case CrashOperation::armNextRestart:
      return {target.username, target.password};
    case CrashOperation::enablePersistentProtection:
      return {target.username, target.password, Date()};
    case CrashOperation::configureDockerHeartbeat:
      return {target.heartbeatConfiguration};
  }
  return {};
}

// The copy a store writes before renaming it into place: ".<file>.<8 characters>".
bool isTemporaryCopy(std::string_view entry) {
  constexpr std::array files{kStatusFile, kHeartbeatFile, kCredentialFile};
  return std::ranges::any_of(files, [&](std::string_view file) {
    return entry.size() == file.size() + 10 && entry.starts_with('.') && entry.substr(1, file.size()) == file &&
           entry[file.size() + 1] == '.';
  });
}

void checkCredential(const CrashLoopTarget& target, const fs::path& file) {
  const CommandResult opened = CommandRunner(30).run(
      "/usr/bin/systemd-creds",
      {"decrypt", "--name=" + std::string(HelperConstants::persistentCredentialService), file, "-"});
  if (opened.exitCode != 0) throw std::runtime_error("does not unseal: " + opened.standardError);
  const plist::Value item = plist::decode(opened.standardOutput);
  const plist::Dictionary& fields = plist::asDictionary(item);
  if (plist::requireString(fields, "account") != target.username ||
      plist::requireData(fields, "password") != toBytes(target.password)) {
    throw std::runtime_error("unseals to another credential");
  }
}

// Nothing when the file is private and decodes whole.
std::optional<std::string> problemWith(const CrashLoopTarget& target, const fs::path& file) {
  const std::string name = file.filename();
  try {
    if (modeOf(file) != 0600 || !fs::is_regular_file(fs::symlink_status(file))) return name + ": not private";
    if (name == kStatusFile) (void)HelperProtectionStatus::decode(contentOf(file));
    if (name == kHeartbeatFile && !target.heartbeatConfiguration.empty() &&
        DockerHeartbeatConfiguration::decode(contentOf(file)) !=
            DockerHeartbeatConfiguration::decode(asStringView(target.heartbeatConfiguration))) {
      return name + ": another configuration";
    }
    if (name == kCredentialFile) checkCredential(target, file);
  } catch (const std::exception& error) {
    return name + ": " + error.what();
  }
  return std::nullopt;
}

struct DirectoryState {
  std::vector<std::string> present;
  int temporaries = 0;
  std::vector<std::string> problems;
};

DirectoryState inspect(const CrashLoopTarget& target) {
  DirectoryState state;
  for (const auto& entry : fs::directory_iterator(target.stateDirectory)) {
    const std::string name = entry.path().filename();
    if (isTemporaryCopy(name)) {
      ++state.temporaries;
    } else if (name == kStatusFile || name == kHeartbeatFile || name == kCredentialFile) {
      state.present.push_back(name);
      if (auto problem = problemWith(target, entry.path())) state.problems.push_back(std::move(*problem));
    } else {
      state.problems.push_back(name + ": not a state file");
    }
  }
  return state;
}

void note(CrashLoopReport& report, int round, const std::string& when,
          const std::vector<std::string>& problems) {
  for (const std::string& problem : problems) {
    std::string line = "round " + std::to_string(round);
    line.append(", ").append(when).append(": ").append(problem);
    report.failures.push_back(std::move(line));
  }
}

// The operation in flight, the kill, and what the kill left.
void crashDuring(const CrashLoopTarget& target, CrashOperation operation, std::mt19937& random) {
  const auto client = ipc::HelperClient::connect(target.socket);
  // Queued after the launch re-arm of the last restart, so the kill hits our operation.
  (void)client->call(selectors::dockerHeartbeatStatusData);
  std::vector<std::future<plist::Array>> unanswered;
  unanswered.reserve(static_cast<std::size_t>(infoOf(operation).inFlight));
  for (int i = 0; i < infoOf(operation).inFlight; ++i) {
    unanswered.push_back(client->send(infoOf(operation).selector, argumentsOf(operation, target)));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(random() % (kLongestKillDelayMilliseconds + 1)));
  target.kill();
}

void runRound(const CrashLoopTarget& target, CrashOperation operation, int round, std::mt19937& random,
              CrashLoopReport& report) {
  const OperationInfo& info = infoOf(operation);
  ++report.roundsByOperation[std::string(info.name)];
  crashDuring(target, operation, random);
  const DirectoryState killed = inspect(target);
  note(report, round, "after the kill", killed.problems);
  for (const std::string& name : killed.present) ++report.filesPresentAfterKill[name];
  report.temporariesLeftByKills += killed.temporaries;

  const auto restarting = SteadyClock::now();
  target.restart();
  report.slowestRestartMilliseconds =
      std::max(report.slowestRestartMilliseconds,
               std::chrono::duration<double, std::milli>(SteadyClock::now() - restarting).count());
  const auto client = ipc::HelperClient::connect(target.socket);
  if (client->helperVersion() != "1.3") note(report, round, "after the restart", {"a wrong version"});
  const ipc::HelperCommandResult result =
      ipc::readActionReply(client->call(info.selector, argumentsOf(operation, target)));
  if (result != ipc::HelperCommandResult{true, std::string(info.success)}) {
    note(report, round, "after the restart", {std::string(info.name) + " replied " + result.message});
  }
  note(report, round, "after the next store", stateFileProblems(target, false));
}

}  // namespace

std::vector<std::string> stateFileProblems(const CrashLoopTarget& target, bool temporaryCopiesAllowed) {
  DirectoryState state = inspect(target);
  if (state.temporaries > 0 && !temporaryCopiesAllowed) state.problems.emplace_back("a temporary copy is left");
  return state.problems;
}

CrashLoopReport runCrashLoop(const CrashLoopTarget& target, const std::vector<CrashOperation>& operations,
                             int rounds) {
  CrashLoopReport report;
  std::mt19937 random(std::random_device{}());
  for (int round = 0; round < rounds && !operations.empty(); ++round) {
    try {
      runRound(target, operations[std::size_t(round) % operations.size()], round, random, report);
    } catch (const std::exception& error) {
      // The daemon did not come back or broke its protocol: later rounds would only repeat it.
      report.failures.push_back("round " + std::to_string(round) + ": " + error.what());
      break;
    }
    report.rounds = round + 1;
  }
  return report;
}

void printCrashLoopReport(std::ostream& out, const CrashLoopReport& report) {
  out << "crash loop: " << report.rounds << " rounds killed with SIGKILL 0-" << kLongestKillDelayMilliseconds
      << " ms into";
  for (const auto& [operation, count] : report.roundsByOperation) out << ' ' << operation << " x" << count;
  out << "\nstate files found whole after a kill:";
  for (const auto& [name, count] : report.filesPresentAfterKill) out << ' ' << name << " x" << count;
  out << "\ntemporary copies left by kills: " << report.temporariesLeftByKills << "\nslowest restart "
      << std::fixed << std::setprecision(0) << report.slowestRestartMilliseconds << " ms\n";
  for (const std::string& failure : report.failures) out << "FAILED: " << failure << '\n';
  out << (report.passed() ? "crash loop passed" : "crash loop FAILED") << '\n';
}

}  // namespace harborkeeper::testing_support
