// Many clients at once: every pipelined request answered, and no more
// connections than the daemon's limit.
#include <atomic>
#include <deque>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "core/ipc/frame_codec.h"
#include "core/ipc/helper_protocol.h"

#include "tests/integration/daemon_harness.h"

namespace harborkeeper {
namespace {

using namespace testing_support;

constexpr int kClients = 64;  // the daemon's limit
constexpr int kRequestsPerClient = 200;
constexpr std::size_t kOutstanding = 10;

struct Tally {
  std::atomic<int> connected{0};
  std::atomic<int> answered{0};
  std::atomic<int> wrong{0};
  std::atomic<int> failed{0};
};

void count(Tally& tally, const plist::Array& reply) {
  ++(reply == ipc::textReply("1.3") ? tally.answered : tally.wrong);
}

// One client: a first request, so the daemon has surely taken the connection
// in, then the rest pipelined once `go` is released.
void runClient(const DaemonHarness& daemon, Tally& tally, const std::shared_future<void>& go) {
  try {
    const auto client = daemon.client();
    count(tally, client->send(ipc::selectors::helperVersion).get());
    ++tally.connected;
    go.wait();
    std::deque<std::future<plist::Array>> pending;
    for (int sent = 1; sent < kRequestsPerClient || !pending.empty();) {
      for (; sent < kRequestsPerClient && pending.size() < kOutstanding; ++sent) {
        pending.push_back(client->send(ipc::selectors::helperVersion));
      }
      count(tally, pending.front().get());
      pending.pop_front();
    }
  } catch (const std::exception&) {
    ++tally.failed;
  }
}

bool servesANewClient(const DaemonHarness& daemon) {
  try {
    return daemon.client()->helperVersion() == "1.3";
  } catch (const ipc::HelperClientError&) {
    return false;
  }
}

TEST_F(DaemonTest, SixtyFourPipeliningClientsAreAllAnsweredAndASixtyFifthIsClosedAtOnce) {
  const DaemonHarness& daemon = startDaemon();
  Tally tally;
  std::promise<void> release;
  const std::shared_future<void> go = release.get_future().share();
  std::vector<std::thread> clients;
  clients.reserve(kClients);
  for (int i = 0; i < kClients; ++i) clients.emplace_back(runClient, std::cref(daemon), std::ref(tally), go);

  const bool allConnected = eventually([&] { return tally.connected + tally.failed == kClients; }, 30s);
  if (allConnected && tally.failed == 0) {
    const UniqueFd extra = daemon.connectRaw();
    sendAll(extra.get(), toString(ipc::encodeFrame(ipc::encodeRequest({1, "helperVersionWithReply:", {}}))));
    const Closure closure = waitForClose(extra.get(), 3s);
    EXPECT_TRUE(closure.closed);
    EXPECT_EQ(closure.received, "");
    EXPECT_LT(closure.after, 1s);
  }
  release.set_value();
  for (std::thread& client : clients) client.join();

  ASSERT_TRUE(allConnected);
  EXPECT_EQ(tally.failed, 0);
  EXPECT_EQ(tally.wrong, 0);
  EXPECT_EQ(tally.answered, kClients * kRequestsPerClient);
  // The limit counts open connections only: once they are gone a new client is served.
  EXPECT_TRUE(eventually([&] { return servesANewClient(daemon); }));
}

}  // namespace
}  // namespace harborkeeper
