#pragma once

// The soak's clients: well-behaved ones that check every reply, and three
// that misbehave. Internal to the soak harness.

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <semaphore>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/foundation/bytes.h"
#include "core/heartbeat/docker_heartbeat_configuration.h"
#include "core/platform/mutex.h"
#include "core/platform/unique_fd.h"

#include "bench/soak/soak_harness.h"

namespace harborkeeper::testing_support::soak {

enum class Kind {
  helperVersion,
  fileVaultUsers,
  protectionStatus,
  armRight,
  armWrong,
  enablePersistent,
  armPersistent,
  disablePersistent,
  powerRecovery,
  configureHeartbeat,
  heartbeatStatus,
  disableHeartbeat,
};
inline constexpr std::size_t kindCount = 12;

struct KindInfo {
  std::string_view name;
  std::string_view selector;
  bool queued;
};
const KindInfo& infoOf(Kind kind);

// Who the environment set up, so each reply can be judged exactly.
struct Expectations {
  std::string socket;
  std::string username;
  std::string password;
  Bytes heartbeatConfiguration;
  DockerHeartbeatStatus configuredStatus;
};

// Counts per kind and the first failures, shared by every client thread.
class Tally final {
 public:
  void sent(Kind kind) noexcept { ++sent_[index(kind)]; }
  void answered(Kind kind, std::chrono::steady_clock::duration took) noexcept;
  void fail(std::string what);
  [[nodiscard]] std::vector<SoakKindTally> kinds() const;
  // At most the first 20, then how many more there were.
  [[nodiscard]] std::vector<std::string> failures() const;

 private:
  static std::size_t index(Kind kind) noexcept { return static_cast<std::size_t>(kind); }

  std::array<std::atomic<std::uint64_t>, kindCount> sent_{};
  std::array<std::atomic<std::uint64_t>, kindCount> answered_{};
  std::array<std::atomic<std::int64_t>, kindCount> slowestMicroseconds_{};
  mutable Mutex mutex_;
  std::vector<std::string> failures_ HK_GUARDED_BY(mutex_);
  std::uint64_t moreFailures_ HK_GUARDED_BY(mutex_) = 0;
};

// What every client thread watches: when to stop, and how much queued work
// may be outstanding (the operation queue runs one request at a time, and a
// wrong password holds it for about 2 s).
struct TrafficControl {
  std::atomic<bool> stopping{false};
  std::counting_semaphore<8> queuedSlots{2};
  std::atomic<std::uint64_t> queuedTurn{0};  // which queued kind comes next
};

// Connects, sends sessions of mixed requests (direct ones pipelined, a queued
// one now and then with direct ones overtaking it) and reconnects, until
// `control.stopping`. Every request is counted and its reply checked.
void runValidClient(const Expectations& expected, TrafficControl& control, Tally& tally, unsigned seed);

// One that connects and never sends, one that sends part of a frame and
// stalls, one that sends malformed frames in a loop; each on its own thread.
class MisbehavingClients final {
 public:
  MisbehavingClients(std::string socket, Tally& tally);
  ~MisbehavingClients();  // stop()
  MisbehavingClients(const MisbehavingClients&) = delete;
  MisbehavingClients& operator=(const MisbehavingClients&) = delete;

  // Checks the idle one is still connected, then ends all three.
  void stop();

  [[nodiscard]] std::uint64_t stallsCut() const noexcept { return stallsCut_; }
  [[nodiscard]] double longestStallSeconds() const noexcept { return longestStallMilliseconds_ / 1000.0; }
  [[nodiscard]] std::uint64_t garbageConnections() const noexcept { return garbageConnections_; }

 private:
  void stall();
  void sendGarbage();

  std::string socket_;
  Tally& tally_;
  std::atomic<bool> stopping_{false};
  UniqueFd silent_;
  std::atomic<std::uint64_t> stallsCut_{0};
  std::atomic<std::int64_t> longestStallMilliseconds_{0};
  std::atomic<std::uint64_t> garbageConnections_{0};
  std::vector<std::thread> threads_;
};

}  // namespace harborkeeper::testing_support::soak
