#include <spawn.h>
#include <sys/wait.h>

#include <chrono>

#include <benchmark/benchmark.h>

#include "core/platform/command_runner.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kTrue[] = "/bin/true";

// The baseline: the least it takes to start a tool and collect its status.
int rawSpawnAndWait() {
  char* argv[] = {const_cast<char*>(kTrue), nullptr};
  char* environment[] = {nullptr};
  pid_t pid = -1;
  if (::posix_spawn(&pid, kTrue, nullptr, nullptr, argv, environment) != 0) return -1;
  int status = 0;
  ::waitpid(pid, &status, 0);
  return status;
}

bool runnerRunsTrue(const harborkeeper::CommandRunner& runner) { return runner.run(kTrue, {}).exitCode == 0; }

void BM_RawPosixSpawnTrue(benchmark::State& state) {
  for ([[maybe_unused]] auto _ : state) {
    if (rawSpawnAndWait() != 0) state.SkipWithError("posix_spawn of /bin/true failed");
  }
}
// Most of the time is the child's, so wall-clock time is what counts.
BENCHMARK(BM_RawPosixSpawnTrue)->UseRealTime();

void BM_CommandRunnerTrue(benchmark::State& state) {
  const harborkeeper::CommandRunner runner(10);
  for ([[maybe_unused]] auto _ : state) {
    if (!runnerRunsTrue(runner)) state.SkipWithError("CommandRunner could not run /bin/true");
  }
}
BENCHMARK(BM_CommandRunnerTrue)->UseRealTime();

// Both in alternation, so that load from elsewhere hits them alike; "ratio"
// (runner time over raw spawn time) is the figure to watch, target <= 1.5.
void BM_CommandRunnerOverRawSpawn(benchmark::State& state) {
  const harborkeeper::CommandRunner runner(10);
  Clock::duration raw{};
  Clock::duration wrapped{};
  for ([[maybe_unused]] auto _ : state) {
    const auto start = Clock::now();
    const bool rawOk = rawSpawnAndWait() == 0;
    const auto middle = Clock::now();
    const bool runnerOk = runnerRunsTrue(runner);
    raw += middle - start;
    wrapped += Clock::now() - middle;
    if (!rawOk || !runnerOk) state.SkipWithError("a run of /bin/true failed");
  }
  const auto perRunMicroseconds = [&](Clock::duration total) {
    return std::chrono::duration<double, std::micro>(total).count() / static_cast<double>(state.iterations());
  };
  state.counters["raw_us"] = perRunMicroseconds(raw);
  state.counters["runner_us"] = perRunMicroseconds(wrapped);
  state.counters["ratio"] = perRunMicroseconds(wrapped) / perRunMicroseconds(raw);
}
BENCHMARK(BM_CommandRunnerOverRawSpawn)->UseRealTime();

}  // namespace
