#pragma once

// A watch over every process's command line and environment. Test and
// benchmark code only.

#include <set>
#include <stop_token>
#include <string>
#include <thread>

namespace harborkeeper::testing_support {

// Reads the command line and environment of every process, again and again,
// looking for a secret, until finished.
class ProcessScan final {
 public:
  struct Findings {
    std::size_t rounds = 0;
    // Processes whose command line holds the witness as one argument: proof
    // that the scan saw the processes that mattered.
    std::set<std::string> witnessed;
    std::set<std::string> leaks;  // "pid cmdline|environ"
  };

  ProcessScan(std::string secret, std::string witness);
  Findings finish();

 private:
  void scan(const std::stop_token& stop);

  const std::string secret_;
  const std::string witness_;
  Findings findings_;
  std::jthread thread_;
};

}  // namespace harborkeeper::testing_support
