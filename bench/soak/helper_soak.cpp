// The built daemon under 32 clients for ten minutes: every reply checked,
// descriptors, threads and resident memory watched, the log scanned for
// secrets. Or, with --crash-loop, killed again and again in the middle of its
// writes. Needs root: it adds a throwaway local user for PAM. Exit status 0
// only when every check holds.
//
//   sudo build/<dir>/bin/helper_soak [--seconds N] [--clients N<=60]
//   sudo build/<dir>/bin/helper_soak --crash-loop [ROUNDS]
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>

#include "bench/soak/soak_harness.h"

namespace {

using namespace harborkeeper::testing_support;

// The daemon serves 64 connections at once; three go to the misbehaving clients.
constexpr int kMostClients = 60;

struct Arguments {
  SoakOptions soak;
  std::optional<int> crashRounds;
};

std::optional<int> positive(const char* text) {
  char* end = nullptr;
  const long value = text == nullptr ? 0 : std::strtol(text, &end, 10);
  if (text == nullptr || *end != '\0' || value <= 0 || value > 1'000'000) return std::nullopt;
  return static_cast<int>(value);
}

std::optional<Arguments> parse(int argc, char** argv) {
  Arguments parsed;
  for (int i = 1; i < argc; ++i) {
    const std::string_view flag = argv[i];
    const char* next = i + 1 < argc ? argv[i + 1] : nullptr;
    if (flag == "--crash-loop") {
      parsed.crashRounds = positive(next).value_or(100);
      if (positive(next)) ++i;
    } else if (flag == "--seconds" && positive(next)) {
      parsed.soak.duration = std::chrono::seconds(*positive(next));
      ++i;
    } else if (flag == "--clients" && positive(next) && *positive(next) <= kMostClients) {
      parsed.soak.clients = *positive(next);
      ++i;
    } else {
      return std::nullopt;
    }
  }
  return parsed;
}

}  // namespace

int main(int argc, char** argv) {
  const std::optional<Arguments> arguments = parse(argc, argv);
  if (!arguments) {
    std::cerr << "usage: helper_soak [--seconds N] [--clients N] | --crash-loop [ROUNDS]\n";
    return 2;
  }
  if (::geteuid() != 0) {
    std::cerr << "helper_soak: needs root (it adds a throwaway user for PAM)\n";
    return 2;
  }
  SoakEnvironment environment({HARBORKEEPER_HELPER_BIN, HARBORKEEPER_PAM_DIR, HARBORKEEPER_TEST_TOOLS_DIR});
  if (arguments->crashRounds) {
    const CrashLoopReport report =
        runCrashLoop(environment.crashLoopTarget(),
                     {CrashOperation::armNextRestart, CrashOperation::enablePersistentProtection,
                      CrashOperation::configureDockerHeartbeat},
                     *arguments->crashRounds);
    printCrashLoopReport(std::cout, report);
    return report.passed() ? 0 : 1;
  }
  SoakOptions options = arguments->soak;
  options.progress = &std::cout;
  std::cout << "soak: " << options.clients << " clients for " << options.duration.count() << " s\n";
  const SoakReport report = runSoak(environment, options);
  printSoakReport(std::cout, report);
  return report.passed() ? 0 : 1;
}
