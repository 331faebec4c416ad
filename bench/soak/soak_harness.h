#pragma once

// The built daemon under long load, and killed in the middle of its writes.
// Shared by soak_test and bench/soak.cpp. Test code only; needs root (a
// throwaway PAM user, root-owned state, the real systemd-creds).

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/foundation/bytes.h"
#include "core/ipc/helper_client.h"

namespace harborkeeper::testing_support {

class ChildProcess;
class NoContentServer;
class TemporaryDirectory;
class ThrowawayUser;

// Where the built pieces are.
struct SoakSetup {
  std::string helperBinary;
  std::string pamDirectory;    // holds the daemon's PAM service file
  std::string toolsDirectory;  // the integration tests' stand-in tools
};

// What the crash loop needs of a daemon, whoever runs it.
struct CrashLoopTarget {
  std::filesystem::path stateDirectory;
  std::string socket;
  std::function<void()> kill;     // SIGKILL, and reaped
  std::function<void()> restart;  // a new daemon, once it accepts
  std::string username;
  std::string password;
  Bytes heartbeatConfiguration;  // needed only to crash while configuring the heartbeat
};

// The built daemon in a fresh 0700 directory under /tmp: a throwaway local
// user (real PAM), the stand-in fdesetup listing only that user, the stand-in
// pmset, the real systemd-creds, and a loopback heartbeat endpoint that
// answers 204. The daemon is started on construction (throws if it does not
// come up) and runs on the constructing thread's behalf: keep the object on
// a thread that outlives the run.
class SoakEnvironment final {
 public:
  explicit SoakEnvironment(const SoakSetup& setup);
  ~SoakEnvironment();
  SoakEnvironment(const SoakEnvironment&) = delete;
  SoakEnvironment& operator=(const SoakEnvironment&) = delete;

  // SIGTERM and wait; the wait status.
  int stop();
  [[nodiscard]] bool running();
  [[nodiscard]] pid_t pid() const;

  [[nodiscard]] std::string socket() const;
  [[nodiscard]] std::filesystem::path stateDirectory() const;
  [[nodiscard]] std::string log() const;
  [[nodiscard]] std::unique_ptr<ipc::HelperClient> client() const;

  [[nodiscard]] const std::string& username() const;
  [[nodiscard]] const std::string& password() const { return password_; }
  // Random letters inside the password and the heartbeat secret: what a leak scan looks for.
  [[nodiscard]] const std::string& passwordCore() const { return passwordCore_; }
  [[nodiscard]] const std::string& secretCore() const { return secretCore_; }
  [[nodiscard]] std::string heartbeatEndpoint() const;
  [[nodiscard]] const std::string& heartbeatProfile() const { return profile_; }
  [[nodiscard]] Bytes heartbeatConfiguration() const;
  [[nodiscard]] std::uint64_t beatsReceived() const;

  [[nodiscard]] CrashLoopTarget crashLoopTarget();

 private:
  void start();

  std::string helperBinary_;
  std::string pamDirectory_;
  std::unique_ptr<TemporaryDirectory> directory_;
  std::string passwordCore_;
  std::string password_;
  std::string secretCore_;
  std::string profile_;
  std::unique_ptr<ThrowawayUser> user_;
  std::unique_ptr<NoContentServer> endpoint_;
  std::unique_ptr<ChildProcess> daemon_;
};

struct SoakOptions {
  std::chrono::seconds duration{600};
  int clients = 32;
  std::chrono::seconds sampleEvery{10};
  std::ostream* progress = nullptr;  // a line per memory sample, if set
  // Off under a sanitizer: its allocator holds freed memory back by design.
  bool memoryMustStayFlat = true;
};

// How one kind of request fared: answered means a reply of the right shape
// with an expected text.
struct SoakKindTally {
  std::string kind;
  bool queued = false;
  std::uint64_t sent = 0;
  std::uint64_t answered = 0;
  double slowestMilliseconds = 0;  // from sending to the reply
};

struct SoakReport {
  double seconds = 0;
  std::vector<SoakKindTally> kinds;
  long descriptorsAtStart = 0;
  long descriptorsAtEnd = 0;
  long threadsAtStart = 0;
  long threadsAtEnd = 0;
  long peakThreads = 0;
  long residentKiBAtStart = 0;
  long residentKiBAfterWarmUp = 0;
  long residentKiBMax = 0;
  long residentKiBAtEnd = 0;
  std::uint64_t stallsCut = 0;           // partial frames the daemon gave up on
  double longestStallSeconds = 0;        // how long it waited for one
  std::uint64_t garbageConnections = 0;  // each closed without a reply
  std::uint64_t beats = 0;
  std::vector<std::string> failures;

  [[nodiscard]] bool passed() const { return failures.empty(); }
};

// Drives `environment`'s daemon for `options.duration` and checks it: every
// valid request answered once with what it should say, misbehaving clients
// cut off without a reply (an idle one kept), descriptors and threads back to
// their starting count afterwards, resident memory flat after warm-up, no
// secret in the log, and a clean exit on SIGTERM at the end (the daemon is
// stopped).
SoakReport runSoak(SoakEnvironment& environment, const SoakOptions& options);
void printSoakReport(std::ostream& out, const SoakReport& report);

enum class CrashOperation { armNextRestart, enablePersistentProtection, configureDockerHeartbeat };

struct CrashLoopReport {
  int rounds = 0;
  std::map<std::string, int> roundsByOperation;
  std::map<std::string, int> filesPresentAfterKill;  // by name, over all rounds
  int temporariesLeftByKills = 0;
  double slowestRestartMilliseconds = 0;
  std::vector<std::string> failures;

  [[nodiscard]] bool passed() const { return failures.empty(); }
};

// Each round starts one of `operations` (in turn), SIGKILLs the daemon 0 to
// 150 ms later, checks every state file is absent or whole (the status and
// heartbeat plists decode, the sealed credential unseals to the right
// password), restarts it, checks it answers, runs the operation to success
// and checks that no temporary copy is left.
CrashLoopReport runCrashLoop(const CrashLoopTarget& target, const std::vector<CrashOperation>& operations,
                             int rounds);
void printCrashLoopReport(std::ostream& out, const CrashLoopReport& report);

// The crash loop's check of `target.stateDirectory`, one text per fault: a
// state file that is not private or not whole, a heartbeat configuration or
// credential other than the target's, any other entry, and a temporary copy
// unless `temporaryCopiesAllowed`.
std::vector<std::string> stateFileProblems(const CrashLoopTarget& target, bool temporaryCopiesAllowed);

}  // namespace harborkeeper::testing_support
