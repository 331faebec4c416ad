// runSoak: the load, the samples taken while it runs, and the checks after.

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <fstream>
#include <iomanip>
#include <ostream>
#include <random>

#include "core/ipc/helper_protocol.h"

#include "tests/integration/child_process.h"
#include "bench/soak/soak_harness.h"
#include "bench/soak/soak_traffic.h"

namespace harborkeeper::testing_support {

namespace {

namespace fs = std::filesystem;
using SteadyClock = std::chrono::steady_clock;
using std::chrono::seconds;

// How long the clients may take to finish once told to stop: a request queued
// behind two wrong passwords waits about 4 s.
constexpr seconds kFinishLimit{60};
// A connection thread lingers 1 s for the next client; then counts settle.
constexpr seconds kSettleLimit{15};

struct Counts {
  long descriptors = -1;
  long threads = -1;
  bool operator==(const Counts&) const = default;
};

long entriesOf(const fs::path& directory) {
  std::error_code error;
  long count = 0;
  for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) ++count;
  return error ? -1 : count;
}

Counts countsOf(pid_t pid) {
  const fs::path proc = "/proc/" + std::to_string(pid);
  return {entriesOf(proc / "fd"), entriesOf(proc / "task")};
}

long residentKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
  }
  return -1;
}

// The counts once they have held still for 2 s (or whatever they are after `limit`).
Counts settledCounts(pid_t pid, seconds limit, const Counts& hoped = {}) {
  const auto deadline = SteadyClock::now() + limit;
  Counts last = countsOf(pid);
  auto stableSince = SteadyClock::now();
  while (SteadyClock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    const Counts now = countsOf(pid);
    if (now != last) stableSince = SteadyClock::now();
    last = now;
    if (now == hoped || SteadyClock::now() - stableSince >= seconds(2)) break;
  }
  return last;
}

void expectAction(SoakReport& report, ipc::HelperClient& client, std::string_view selector,
                  const std::string& wanted) {
  try {
    const ipc::HelperCommandResult result = ipc::readActionReply(client.call(selector));
    if (result != ipc::HelperCommandResult{true, wanted}) {
      report.failures.push_back(std::string(selector) + ": replied " + result.message);
    }
  } catch (const std::exception& error) {
    report.failures.push_back(std::string(selector) + ": " + error.what());
  }
}

// Back to how the run started: no heartbeat timer, nothing stored.
void restoreStartingState(SoakReport& report, SoakEnvironment& environment) {
  const auto client = environment.client();
  expectAction(report, *client, ipc::selectors::disableDockerHeartbeat, "Docker heartbeat is disabled.");
  expectAction(report, *client, ipc::selectors::disablePersistentProtection,
               "Persistent protection is disabled. This does not cancel an authenticated restart that macOS "
               "has already armed.");
}

struct Sample {
  seconds at;
  long residentKiB;
};

void recordMemory(SoakReport& report, const std::vector<Sample>& samples, seconds warmUp, bool mustStayFlat) {
  if (samples.empty()) return;
  const auto warm =
      std::find_if(samples.begin(), samples.end(), [&](const Sample& s) { return s.at >= warmUp; });
  report.residentKiBAfterWarmUp = (warm == samples.end() ? samples.back() : *warm).residentKiB;
  report.residentKiBAtEnd = samples.back().residentKiB;
  for (const Sample& sample : samples)
    report.residentKiBMax = std::max(report.residentKiBMax, sample.residentKiB);
  // Flat: allocator arenas and caches are warm by now; growth beyond this is a leak.
  const long margin = std::max(2048L, report.residentKiBAfterWarmUp / 20);
  if (mustStayFlat && report.residentKiBAtEnd > report.residentKiBAfterWarmUp + margin) {
    report.failures.push_back(
        "resident memory grew after warm-up: " + std::to_string(report.residentKiBAfterWarmUp) + " KiB -> " +
        std::to_string(report.residentKiBAtEnd) + " KiB");
  }
}

void checkTallies(SoakReport& report) {
  for (const SoakKindTally& kind : report.kinds) {
    if (kind.sent == 0) report.failures.push_back(kind.kind + ": never sent (starved)");
    if (kind.answered != kind.sent) {
      report.failures.push_back(kind.kind + ": " + std::to_string(kind.answered) + " of " +
                                std::to_string(kind.sent) + " answered as expected");
    }
  }
}

void checkLog(SoakReport& report, const SoakEnvironment& environment) {
  const std::string log = environment.log();
  const std::pair<const char*, std::string> secrets[] = {{"password", environment.passwordCore()},
                                                         {"heartbeat secret", environment.secretCore()}};
  for (const auto& [what, core] : secrets) {
    if (const std::size_t lines = linesContaining(log, core)) {
      report.failures.push_back(std::to_string(lines) + " log lines hold the " + what);
    }
  }
  if (const std::size_t refused = linesContaining(log, "Refused a ")) {
    report.failures.push_back(std::to_string(refused) + " connections refused");
  }
}

// A queued request runs after the launch re-arm; then only idle threads remain.
Counts baseline(SoakEnvironment& environment, SoakReport& report) {
  (void)environment.client()->call(ipc::selectors::dockerHeartbeatStatusData);
  const Counts start = settledCounts(environment.pid(), kSettleLimit);
  report.descriptorsAtStart = start.descriptors;
  report.threadsAtStart = report.peakThreads = start.threads;
  report.residentKiBAtStart = residentKiB(environment.pid());
  return start;
}

// Resident memory every `sampleEvery` and at the end, threads every half second.
std::vector<Sample> watch(pid_t pid, SteadyClock::time_point began, const SoakOptions& options,
                          const soak::Tally& tally, SoakReport& report) {
  std::vector<Sample> samples;
  for (seconds at = std::min(options.sampleEvery, options.duration);;
       at = std::min(at + options.sampleEvery, options.duration)) {
    while (SteadyClock::now() < began + at) {
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
      report.peakThreads = std::max(report.peakThreads, countsOf(pid).threads);
    }
    samples.push_back({at, residentKiB(pid)});
    if (options.progress != nullptr) {
      std::uint64_t sent = 0;
      for (const SoakKindTally& kind : tally.kinds()) sent += kind.sent;
      *options.progress << std::setw(5) << at.count() << " s  resident " << samples.back().residentKiB
                        << " KiB  threads " << countsOf(pid).threads << "  requests " << sent << std::endl;
    }
    if (at == options.duration) return samples;
  }
}

// Once the clients have left: state restored, then counts settled, a clean exit and a clean log.
void checkAfterward(SoakReport& report, SoakEnvironment& environment, const Counts& start) {
  if (!environment.running()) {
    report.failures.push_back("the daemon died during the run");
    return;
  }
  restoreStartingState(report, environment);
  const Counts end = settledCounts(environment.pid(), kSettleLimit, start);
  report.descriptorsAtEnd = end.descriptors;
  report.threadsAtEnd = end.threads;
  if (end != start) report.failures.push_back("descriptors or threads not back to their starting count");
  report.beats = environment.beatsReceived();
  if (report.beats == 0) report.failures.push_back("no heartbeat reached the endpoint");
  const int status = environment.stop();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    report.failures.push_back("the daemon did not exit cleanly on SIGTERM (wait status " +
                              std::to_string(status) + ")");
  }
  checkLog(report, environment);
}

}  // namespace

SoakReport runSoak(SoakEnvironment& environment, const SoakOptions& options) {
  SoakReport report;
  const Counts start = baseline(environment, report);
  soak::Tally tally;
  soak::TrafficControl control;
  const soak::Expectations expected{
      environment.socket(), environment.username(), environment.password(),
      environment.heartbeatConfiguration(),
      DockerHeartbeatStatus{true, environment.heartbeatEndpoint(), environment.heartbeatProfile(), 30}};
  soak::MisbehavingClients misbehaving(environment.socket(), tally);
  std::atomic<int> finished{0};
  std::vector<std::thread> clients;
  std::random_device seeds;
  const auto began = SteadyClock::now();
  for (int i = 0; i < options.clients; ++i) {
    clients.emplace_back([&, seed = seeds()] {
      soak::runValidClient(expected, control, tally, seed);
      ++finished;
    });
  }
  const std::vector<Sample> samples = watch(environment.pid(), began, options, tally, report);
  control.stopping = true;
  report.seconds = std::chrono::duration<double>(SteadyClock::now() - began).count();
  if (!eventually([&] { return finished == options.clients; }, kFinishLimit)) {
    report.failures.push_back("requests still unanswered " + std::to_string(kFinishLimit.count()) +
                              " s after the end; the daemon is killed to free the clients");
    ::kill(environment.pid(), SIGKILL);
  }
  for (std::thread& client : clients) client.join();
  misbehaving.stop();

  report.kinds = tally.kinds();
  for (std::string& failure : tally.failures()) report.failures.push_back(std::move(failure));
  checkTallies(report);
  recordMemory(report, samples, std::max(options.sampleEvery, std::min(seconds(60), options.duration / 4)),
               options.memoryMustStayFlat);
  report.stallsCut = misbehaving.stallsCut();
  report.longestStallSeconds = misbehaving.longestStallSeconds();
  report.garbageConnections = misbehaving.garbageConnections();
  checkAfterward(report, environment, start);
  return report;
}

void printSoakReport(std::ostream& out, const SoakReport& report) {
  out << std::fixed << std::setprecision(1) << "soak of " << report.seconds << " s\n"
      << std::left << std::setw(34) << "request" << std::setw(8) << "runs" << std::right << std::setw(10)
      << "sent" << std::setw(10) << "answered" << std::setw(10) << "per s" << std::setw(14) << "slowest ms"
      << '\n';
  for (const SoakKindTally& kind : report.kinds) {
    out << std::left << std::setw(34) << kind.kind << std::setw(8) << (kind.queued ? "queued" : "direct")
        << std::right << std::setw(10) << kind.sent << std::setw(10) << kind.answered << std::setw(10)
        << std::setprecision(2) << (report.seconds > 0 ? double(kind.sent) / report.seconds : 0)
        << std::setw(14) << std::setprecision(1) << kind.slowestMilliseconds << '\n';
  }
  out << "descriptors " << report.descriptorsAtStart << " -> " << report.descriptorsAtEnd << ", threads "
      << report.threadsAtStart << " -> " << report.threadsAtEnd << " (peak " << report.peakThreads << ")\n"
      << "resident KiB: start " << report.residentKiBAtStart << ", after warm-up "
      << report.residentKiBAfterWarmUp << ", max " << report.residentKiBMax << ", end "
      << report.residentKiBAtEnd << '\n'
      << "stalled frames cut off " << report.stallsCut << " (longest wait " << std::setprecision(1)
      << report.longestStallSeconds << " s), garbage connections refused " << report.garbageConnections
      << ", heartbeats received " << report.beats << '\n';
  for (const std::string& failure : report.failures) out << "FAILED: " << failure << '\n';
  out << (report.passed() ? "soak passed" : "soak FAILED") << '\n';
}

}  // namespace harborkeeper::testing_support
