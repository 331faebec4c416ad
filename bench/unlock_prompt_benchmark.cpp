#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "core/platform/pseudo_terminal_process.h"
#include "core/recovery/interactive_ssh_unlock_runner.h"

// How long a password prompt waits for its answer: the stand-in ssh prints
// "Password:" and measures, on its own monotonic clock, until it has read the
// password line. Process start-up is outside the measured interval.
namespace {

using namespace std::chrono_literals;
using harborkeeper::PseudoTerminalProcess;

constexpr char kStandIn[] = HARBORKEEPER_PROMPT_STANDIN;
constexpr char kPassword[] = "bench-password";

// Nanoseconds the stand-in reported, or -1.
double reportedLatency(const std::string& output) {
  const auto at = output.find("latency_ns=");
  if (at == std::string::npos) return -1;
  return std::strtod(output.c_str() + at + 11, nullptr);
}

double viaRunner() {
  harborkeeper::RecoveryProfile profile;
  profile.fileVaultUsername = "benchuser";
  const harborkeeper::InteractiveSSHUnlockRunner runner(kStandIn, {5s, 50ms, 0ms, 1s});
  return reportedLatency(runner.unlock(profile, "bench.host", "/dev/null", kPassword).standardOutput);
}

// The least a parent can do: wait on the terminal (`sleepInstead` false) or
// sleep 50 ms between reads, as a loop without poll would, then answer.
double viaBareTerminal(bool sleepInstead) {
  PseudoTerminalProcess child(kStandIn, {});
  std::string output;
  bool answered = false;
  const auto deadline = std::chrono::steady_clock::now() + 5s;
  while ((child.readAvailable(output) || !child.hasExited()) && std::chrono::steady_clock::now() < deadline) {
    if (!answered && output.find("Password:") != std::string::npos) {
      answered = child.writeAll(std::string(kPassword) + "\n", 1s);
      continue;
    }
    if (sleepInstead) {
      std::this_thread::sleep_for(50ms);
    } else {
      child.waitForOutputOrExit(5s);
    }
  }
  return reportedLatency(output);
}

double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2), values.end());
  return values[values.size() / 2];
}

// Runner and bare terminal in alternation, so load from elsewhere hits both
// alike. "ratio" (runner median over bare median) and "runner_us" (target:
// under 10 ms) are the figures to watch.
void BM_UnlockPromptLatencyOverBareTerminal(benchmark::State& state) {
  std::vector<double> bare;
  std::vector<double> runner;
  for ([[maybe_unused]] auto _ : state) {
    bare.push_back(viaBareTerminal(false));
    runner.push_back(viaRunner());
    if (bare.back() < 0 || runner.back() < 0) state.SkipWithError("the stand-in reported no latency");
  }
  state.counters["bare_us"] = median(bare) / 1e3;
  state.counters["runner_us"] = median(runner) / 1e3;
  state.counters["ratio"] = median(runner) / median(bare);
}
BENCHMARK(BM_UnlockPromptLatencyOverBareTerminal)->UseRealTime();

// For contrast: answering from a loop that sleeps 50 ms between reads.
void BM_UnlockPromptLatencySleepingLoop(benchmark::State& state) {
  std::vector<double> sleeping;
  for ([[maybe_unused]] auto _ : state) {
    sleeping.push_back(viaBareTerminal(true));
    if (sleeping.back() < 0) state.SkipWithError("the stand-in reported no latency");
  }
  state.counters["sleeping_us"] = median(sleeping) / 1e3;
}
BENCHMARK(BM_UnlockPromptLatencySleepingLoop)->UseRealTime()->Iterations(30);

}  // namespace
