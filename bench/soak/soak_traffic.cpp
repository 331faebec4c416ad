#include "bench/soak/soak_traffic.h"

#include <future>
#include <optional>
#include <random>
#include <utility>

#include "core/ipc/helper_client.h"
#include "core/ipc/helper_protocol.h"
#include "core/protection/file_vault_users.h"
#include "core/protection/protection_status.h"

namespace harborkeeper::testing_support::soak {

namespace {

namespace selectors = ipc::selectors;
using Result = ipc::HelperCommandResult;
using Mode = HelperProtectionMode;

constexpr std::string_view kArmed = "Harborkeeper armed authenticated restart for the next restart.";
constexpr std::string_view kRejected = "The selected user's password was rejected.";
constexpr std::string_view kEnabled = "Persistent protection is enabled and the next restart is armed.";
constexpr std::string_view kNoCredential = "No persistent Harborkeeper credential is stored.";
constexpr std::string_view kDisabled =
    "Persistent protection is disabled. This does not cancel an authenticated restart that macOS has "
    "already armed.";

constexpr KindInfo kKinds[kindCount] = {
    {"helperVersion", selectors::helperVersion, false},
    {"fileVaultUsersData", selectors::fileVaultUsersData, false},
    {"protectionStatusData", selectors::protectionStatusData, false},
    {"armNextRestart (right password)", selectors::armNextRestart, true},
    {"armNextRestart (wrong password)", selectors::armNextRestart, true},
    {"enablePersistentProtection", selectors::enablePersistentProtection, true},
    {"armPersistentProtection", selectors::armPersistentProtection, true},
    {"disablePersistentProtection", selectors::disablePersistentProtection, true},
    {"enableAutomaticPowerRecovery", selectors::enableAutomaticPowerRecovery, true},
    {"configureDockerHeartbeat", selectors::configureDockerHeartbeat, true},
    {"dockerHeartbeatStatusData", selectors::dockerHeartbeatStatusData, true},
    {"disableDockerHeartbeat", selectors::disableDockerHeartbeat, true},
};

// Queued kinds in a fixed turn, so that even a short run sends each of them
// (one wrong password per turn: it holds the queue for about 2 s).
constexpr Kind kQueuedTurn[] = {
    Kind::armRight,         Kind::heartbeatStatus, Kind::configureHeartbeat, Kind::enablePersistent,
    Kind::armPersistent,    Kind::powerRecovery,   Kind::armRight,           Kind::heartbeatStatus,
    Kind::disableHeartbeat, Kind::armPersistent,   Kind::disablePersistent,  Kind::armWrong,
};

constexpr unsigned kMostPauseMilliseconds = 20;

// Most traffic is direct: the version and the status file are cheap, the
// user list runs fdesetup every time.
Kind pickDirect(std::mt19937& random) {
  const unsigned roll = random() % 100;
  if (roll < 48) return Kind::helperVersion;
  if (roll < 97) return Kind::protectionStatus;
  return Kind::fileVaultUsers;
}

plist::Array argumentsOf(Kind kind, const Expectations& expected) {
  switch (kind) {
    case Kind::armRight:
      return {expected.username, expected.password};
    case Kind::armWrong:
      return {expected.username, expected.password + "x"};
    case Kind::enablePersistent:
      return {expected.username, expected.password, Date()};
    case Kind::configureHeartbeat:
      return {expected.heartbeatConfiguration};
    default:
      return {};
  }
}

std::optional<std::string> expectAction(const plist::Array& reply, std::initializer_list<Result> allowed) {
  const Result result = ipc::readActionReply(reply);
  for (const Result& one : allowed) {
    if (result == one) return std::nullopt;
  }
  return "replied (" + std::string(result.success ? "true" : "false") + ", \"" + result.message + "\")";
}

std::optional<std::string> checkStatusFile(const std::optional<Bytes>& data) {
  if (!data) return std::nullopt;  // nothing recorded yet, or just cleared
  const HelperProtectionStatus status = HelperProtectionStatus::decode(asStringView(*data));
  const std::tuple<Mode, bool, std::string_view> allowed[] = {
      {Mode::nextRestart, true, kArmed},        {Mode::nextRestart, false, kRejected},
      {Mode::persistent, true, kEnabled},       {Mode::persistent, true, kArmed},
      {Mode::persistent, false, kNoCredential},
  };
  for (const auto& [mode, succeeded, message] : allowed) {
    if (status.mode == mode && status.succeeded == succeeded && status.message == message) {
      return std::nullopt;
    }
  }
  return "recorded an unexpected status: " + status.message;
}

std::optional<std::string> checkUsers(const std::optional<Bytes>& data, const std::string& username) {
  if (!data) return "sent no user list";
  const FileVaultUserList list = FileVaultUserList::decode(asStringView(*data));
  if (list.isAvailable() && list.users.size() == 1 && list.users[0].accountName() == username) {
    return std::nullopt;
  }
  return "listed " + list.displayName() + (list.unavailableReason ? ": " + *list.unavailableReason : "");
}

std::optional<std::string> checkHeartbeatStatus(const std::optional<Bytes>& data,
                                                const Expectations& expected) {
  if (!data) return "sent no heartbeat status";
  const DockerHeartbeatStatus status = DockerHeartbeatStatus::decode(asStringView(*data));
  if (status == expected.configuredStatus || status == DockerHeartbeatStatus{}) return std::nullopt;
  return "reported the heartbeat at " + status.endpointURL;
}

// Nothing when the reply has the selector's shape and says what it should.
std::optional<std::string> problemWith(Kind kind, const plist::Array& reply, const Expectations& expected) {
  if (!ipc::replyMatches(ipc::findInterfaceEntry(infoOf(kind).selector)->reply, reply)) {
    return "a reply of the wrong shape";
  }
  switch (kind) {
    case Kind::helperVersion:
      return ipc::readTextReply(reply) == "1.3" ? std::nullopt : std::optional("a wrong version");
    case Kind::fileVaultUsers:
      return checkUsers(ipc::readOptionalDataReply(reply), expected.username);
    case Kind::protectionStatus:
      return checkStatusFile(ipc::readOptionalDataReply(reply));
    case Kind::armRight:
      return expectAction(reply, {{true, std::string(kArmed)}});
    case Kind::armWrong:
      return expectAction(reply, {{false, std::string(kRejected)}});
    case Kind::enablePersistent:
      return expectAction(reply, {{true, std::string(kEnabled)}});
    case Kind::armPersistent:
      return expectAction(reply, {{true, std::string(kArmed)}, {false, std::string(kNoCredential)}});
    case Kind::disablePersistent:
      return expectAction(reply, {{true, std::string(kDisabled)}});
    case Kind::powerRecovery:
      return expectAction(reply, {{true, "Automatic power recovery is enabled."}});
    case Kind::configureHeartbeat:
      return expectAction(reply, {{true, "Docker heartbeat is configured."}});
    case Kind::heartbeatStatus:
      return checkHeartbeatStatus(ipc::readOptionalDataReply(reply), expected);
    case Kind::disableHeartbeat:
      return expectAction(reply, {{true, "Docker heartbeat is disabled."}});
  }
  return "an unknown kind";
}

struct Pending {
  Kind kind;
  std::chrono::steady_clock::time_point sent;
  std::future<plist::Array> reply;
};

// Sends every request at once, then takes the replies in the opposite order:
// direct ones come back before a queued one sent ahead of them. False once
// the connection is unusable.
bool exchange(ipc::HelperClient& client, const std::vector<Kind>& kinds, const Expectations& expected,
              Tally& tally) {
  std::vector<Pending> pending;
  for (const Kind kind : kinds) {
    tally.sent(kind);
    pending.push_back({kind, std::chrono::steady_clock::now(),
                       client.send(infoOf(kind).selector, argumentsOf(kind, expected))});
  }
  bool usable = true;
  // Newest first: clang 14 cannot use libstdc++ 12's views::reverse.
  for (std::size_t i = pending.size(); i-- > 0;) {
    Pending& request = pending[i];
    const std::string name(infoOf(request.kind).name);
    try {
      if (const auto problem = problemWith(request.kind, request.reply.get(), expected)) {
        tally.fail(name + ": " + *problem);
      } else {
        tally.answered(request.kind, std::chrono::steady_clock::now() - request.sent);
      }
    } catch (const std::exception& error) {
      tally.fail(name + ": " + error.what());
      usable = false;
    }
  }
  return usable;
}

// A queued request leads, with direct ones behind it, when a slot is free.
std::vector<Kind> nextBatch(TrafficControl& control, std::mt19937& random) {
  std::vector<Kind> batch;
  if (random() % 4 == 0 && control.queuedSlots.try_acquire()) {
    const std::uint64_t turn = control.queuedTurn++;
    batch.push_back(kQueuedTurn[turn % std::size(kQueuedTurn)]);
  }
  const unsigned directCount = 1 + random() % 3;
  for (unsigned i = 0; i < directCount; ++i) batch.push_back(pickDirect(random));
  return batch;
}

}  // namespace

const KindInfo& infoOf(Kind kind) { return kKinds[static_cast<std::size_t>(kind)]; }

void Tally::answered(Kind kind, std::chrono::steady_clock::duration took) noexcept {
  ++answered_[index(kind)];
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(took).count();
  std::atomic<std::int64_t>& slowest = slowestMicroseconds_[index(kind)];
  for (std::int64_t seen = slowest; micros > seen && !slowest.compare_exchange_weak(seen, micros);) {
  }
}

void Tally::fail(std::string what) {
  const MutexLock lock(mutex_);
  if (failures_.size() < 20) {
    failures_.push_back(std::move(what));
  } else {
    ++moreFailures_;
  }
}

std::vector<SoakKindTally> Tally::kinds() const {
  std::vector<SoakKindTally> result;
  for (std::size_t i = 0; i < kindCount; ++i) {
    result.push_back({std::string(kKinds[i].name), kKinds[i].queued, sent_[i], answered_[i],
                      double(slowestMicroseconds_[i]) / 1000.0});
  }
  return result;
}

std::vector<std::string> Tally::failures() const {
  const MutexLock lock(mutex_);
  std::vector<std::string> result = failures_;
  if (moreFailures_ > 0) result.push_back("... and " + std::to_string(moreFailures_) + " more failures");
  return result;
}

void runValidClient(const Expectations& expected, TrafficControl& control, Tally& tally, unsigned seed) {
  std::mt19937 random(seed);
  while (!control.stopping) {
    std::unique_ptr<ipc::HelperClient> client;
    try {
      client = ipc::HelperClient::connect(expected.socket);
    } catch (const std::exception& error) {
      tally.fail(std::string("connect: ") + error.what());
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      continue;
    }
    // Sessions of different lengths, so connections come and go all the time.
    const unsigned session = 5 + random() % 100;
    bool usable = true;
    for (unsigned i = 0; i < session && usable && !control.stopping; ++i) {
      const std::vector<Kind> batch = nextBatch(control, random);
      usable = exchange(*client, batch, expected, tally);
      if (infoOf(batch.front()).queued) control.queuedSlots.release();
      // A pause now and then leaves the machine's two cores room for the queued
      // work's tools; without it the direct traffic alone saturates them.
      std::this_thread::sleep_for(std::chrono::milliseconds(random() % kMostPauseMilliseconds));
    }
    // Reading one more reply would meet a second answer to any earlier request.
    if (usable) (void)exchange(*client, {Kind::helperVersion}, expected, tally);
  }
}

}  // namespace harborkeeper::testing_support::soak
