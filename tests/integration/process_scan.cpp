#include "tests/integration/process_scan.h"

#include <chrono>
#include <filesystem>
#include <system_error>
#include <utility>

#include "core/platform/state_file_test_support.h"

namespace harborkeeper::testing_support {

namespace {

// A process may end while it is being read (the read then fails with ESRCH):
// what can no longer be read holds no secret.
std::string readOrEmpty(const fs::path& path) {
  try {
    return contentOf(path);
  } catch (const std::exception&) {
    return {};
  }
}

}  // namespace

ProcessScan::ProcessScan(std::string secret, std::string witness)
    : secret_(std::move(secret)),
      witness_(std::string(1, '\0') + std::move(witness) + '\0'),
      thread_([this](const std::stop_token& stop) { scan(stop); }) {}

ProcessScan::Findings ProcessScan::finish() {
  thread_ = {};  // stops and joins
  return findings_;
}

void ProcessScan::scan(const std::stop_token& stop) {
  using namespace std::chrono_literals;
  for (; !stop.stop_requested(); ++findings_.rounds, std::this_thread::sleep_for(2ms)) {
    std::error_code error;
    for (fs::directory_iterator entry("/proc", error), end; !error && entry != end; entry.increment(error)) {
      const std::string pid = entry->path().filename();
      if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
      const std::string commandLine = '\0' + readOrEmpty(entry->path() / "cmdline");
      if (commandLine.find(secret_) != std::string::npos) findings_.leaks.insert(pid + " cmdline");
      if (readOrEmpty(entry->path() / "environ").find(secret_) != std::string::npos) {
        findings_.leaks.insert(pid + " environ");
      }
      if (commandLine.find(witness_) != std::string::npos) findings_.witnessed.insert(pid);
    }
  }
}

}  // namespace harborkeeper::testing_support
