// A recovery check of a machine whose remembered addresses mostly lead nowhere:
// nine that accept TCP and never answer, then the live one, last. Concurrent
// host key capture should cost about one key scan limit in all; ordered capture
// costs one per dead address. Needs root: it runs the recovery tests' sshd.
//
//   sudo build/<dir>/bin/recovery_check_bench [repetitions]
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <string>
#include <vector>

#include "core/recovery/companion_recovery_service.h"

#include "tests/integration/locked_mac_sshd.h"

namespace {

using namespace harborkeeper;
using testing_support::LockedMacSshd;

// ssh-keyscan's own connection limit, which a silent address always runs into.
constexpr double kScanLimitSeconds = 5.0;

RecoveryProfile profileBehindDeadAddresses(const LockedMacSshd& mac, const std::vector<std::string>& dead) {
  RecoveryProfile profile = mac.profile();
  profile.vpnHostname = dead[0];
  profile.localHostname = dead[1];
  profile.lastKnownLocalIPs.assign(dead.begin() + 2, dead.end());
  profile.lastKnownLocalIPs.push_back(mac.host());  // the eighth address, the last candidate
  profile.hostKeyFingerprint = mac.hostKeyFingerprint();
  return profile;
}

// Seconds one check takes; negative when it did not find the machine locked.
double timedCheck(const CompanionRecoveryService& service, const RecoveryProfile& profile) {
  const auto start = std::chrono::steady_clock::now();
  const CompanionRecoveryCheckResult result = service.checkRecoveryState(profile);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (result.state != CompanionUnlockState::locked ||
      result.hostKeyFingerprint != profile.hostKeyFingerprint) {
    std::cerr << "unexpected result: " << rawValue(result.state) << ", " << result.message << '\n';
    return -1;
  }
  return seconds;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  if (::geteuid() != 0) {
    std::cerr << "recovery_check_bench: needs root (it adds local users and runs sshd)\n";
    return 2;
  }
  std::cout << std::fixed << std::setprecision(2);
  const int repetitions = argc > 1 ? std::max(1, std::atoi(argv[1])) : 1;
  const LockedMacSshd mac;
  std::vector<std::string> dead;
  for (int last = 2; last <= 10; ++last) dead.push_back("127.0.0." + std::to_string(last));
  const testing_support::Tarpit tarpit(dead, mac.port());
  const RecoveryProfile profile = profileBehindDeadAddresses(mac, dead);

  const CommandRunner runner(30);
  const CompanionRecoveryService concurrent(runner, {}, HostKeyCaptureOrder::concurrent);
  const CompanionRecoveryService ordered(runner, {}, HostKeyCaptureOrder::ordered);
  std::vector<double> concurrentTimes;
  std::vector<double> orderedTimes;
  for (int i = 0; i < repetitions; ++i) {
    concurrentTimes.push_back(timedCheck(concurrent, profile));
    orderedTimes.push_back(timedCheck(ordered, profile));
    std::cout << "run " << i + 1 << ": concurrent " << concurrentTimes.back() << " s, ordered "
              << orderedTimes.back() << " s" << std::endl;
    if (concurrentTimes.back() < 0 || orderedTimes.back() < 0) return 1;
  }
  const double fast = median(concurrentTimes);
  const double slow = median(orderedTimes);
  std::cout << "candidates: 9 silent, then the live host (" << repetitions << " repetition(s), medians)\n"
            << "concurrent: " << fast << " s = " << fast / kScanLimitSeconds << "x the " << kScanLimitSeconds
            << " s scan limit (target <= 1.3x)\nordered:    " << slow << " s\nspeed-up:   " << slow / fast
            << "x\n";
  return fast / kScanLimitSeconds <= 1.3 ? 0 : 1;
}
