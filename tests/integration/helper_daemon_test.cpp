// The real daemon on its socket, driven by the real CLI and by hostile peers.
// Only an offending connection closes, without a reply, and the log names why
// but never repeats what the peer sent.
#include <future>
#include <latch>

#include <gtest/gtest.h>

#include "core/foundation/json.h"
#include "core/ipc/helper_protocol.h"

#include "tests/integration/daemon_harness.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using ipc::selectors::helperVersion;

// The users reply, as Python reads it, is what the CLI shows as JSON.
TEST_F(DaemonTest, DirectRequestsThroughTheCliWithTheToolRunWithOnlyItsArgumentAndNoEnvironment) {
  const Daemon daemon;
  EXPECT_EQ(daemon.cli({"version"}), CliOutcome(0, "1.3", ""));
  EXPECT_EQ(daemon.cli({"users"}), CliOutcome(0, "alice 5B6C1E8A-0F5E-4E2B-9C1D-3A2B1C0D9E8F\nbob", ""));
  const CommandResult decoded = CommandRunner(30).run(
      HARBORKEEPER_PYTHON3, {HARBORKEEPER_TEST_TOOLS_DIR "/decode_plist.py", "/dev/stdin"},
      toString(daemon.client()->fileVaultUsersData().value()));
  ASSERT_EQ(decoded.exitCode, 0) << decoded.standardError;
  EXPECT_EQ(json::parse(decoded.standardOutput), json::parse(std::get<1>(daemon.cli({"users", "--json"}))));
  // The stand-in refuses other arguments and any environment but the shell's own PWD.
  EXPECT_EQ(daemon.toolRuns(), "list\nlist\nlist\n");

  // A recorded status is shown by restart_protection_test and fault_injection_test.
  const CliOutcome none(1, "", "harborkeeper: No protection status is recorded.");
  EXPECT_EQ(daemon.cli({"status"}), none);
  EXPECT_EQ(daemon.cli({"status", "--json"}), none);
}

// Refused at accept, before any request byte is read: no reply, nothing run.
// A copy the registry does not list is fault_injection_test's.
TEST_F(DaemonTest, AnUnsafeCliCopyGetsNoReplyAndReachesNothing) {
  const TemporaryDirectory copies;
  const std::string listed = copyExecutable(builtCli(), copies.path() / "b/harborkeeper", fs::perms(0755));
  const Daemon daemon("fdesetup_lists_two_users.sh", {listed});
  // The listed copy is served while it is safe, so only its mode differs below.
  ASSERT_EQ(daemon.cli({"version"}, listed), CliOutcome(0, "1.3", "")) << daemon.log();
  fs::permissions(listed, fs::perms(0775));

  const std::string noReply = "harborkeeper: The Harborkeeper helper closed the connection without replying.";
  EXPECT_EQ(daemon.cli({"users"}, listed), CliOutcome(3, "", noReply));
  EXPECT_TRUE(eventually([&] { return daemon.logLines("Refused a client") == 1; })) << daemon.log();
  EXPECT_EQ(daemon.toolRuns(), "");
}

TEST_F(DaemonTest, TerminationSignalsExitCleanlyAndRemoveTheSocket) {
  for (const int signal : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(signal);
    Daemon daemon;
    const auto connected = daemon.client();  // an open connection must not hold the daemon up
    ASSERT_EQ(connected->helperVersion(), "1.3");
    EXPECT_EQ(daemon.stop(signal), 0) << daemon.log();  // exited with status 0
    EXPECT_FALSE(fs::exists(daemon.socket()));
    EXPECT_THROW(connected->helperVersion(), ipc::HelperClientError);
  }
}

constexpr char kClosed[] = "Closed a connection";
constexpr char kMarker[] = "MARKER";  // in every payload below, so it must never reach the log

std::string header(std::uint32_t n) { return {char(n >> 24), char(n >> 16), char(n >> 8), char(n)}; }

std::string frame(const Bytes& payload) { return header(std::uint32_t(payload.size())) + toString(payload); }

std::string requestFrame(std::string_view selector, plist::Value arguments = plist::Array{}) {
  const plist::Dictionary request{
      {"id", 1}, {"selector", std::string(selector)}, {"arguments", std::move(arguments)}, {"note", kMarker}};
  return frame(plist::encode(request, plist::Format::binary));
}

TEST_F(DaemonTest, MalformedOrStalledInputClosesOnlyItsOwnConnection) {
  const Daemon daemon;
  const auto bystander = daemon.client();
  // {name, bytes, whether the peer then closes its writing side}; soak_test's
  // misbehaving clients send bad lengths and wrong arguments too, under load.
  const std::tuple<const char*, std::string, bool> inputs[] = {
      {"truncated frame, then close", header(64) + "MARKER-truncated", true},
      {"not a property list", frame(toBytes("MARKER-plain-text")), false},
      {"unknown selector", requestFrame("MARKERUnknownWithReply:"), false},
      // The direct requests take no argument, so the list itself is of the wrong type.
      {"wrong argument type", requestFrame(helperVersion, std::string("MARKER-not-a-list")), false},
  };
  std::size_t closed = 0;
  for (const auto& [name, bytes, thenClose] : inputs) {
    SCOPED_TRACE(name);
    EXPECT_EQ(daemon.sendRaw(bytes, 5s, thenClose), "");
    EXPECT_EQ(bystander->helperVersion(), "1.3");
    EXPECT_TRUE(eventually([&, n = ++closed] { return daemon.logLines(kClosed) == n; })) << daemon.log();
  }
  // A started frame that stalls is closed after 10 s, while the bystander, idle meanwhile, stays.
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(daemon.sendRaw(header(64) + "MARKER-stalled", 15s), "");
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_TRUE(elapsed >= 10s && elapsed < 12s) << std::chrono::duration<double>(elapsed).count();
  EXPECT_EQ(bystander->helperVersion(), "1.3");
  EXPECT_TRUE(eventually([&] { return daemon.logLines(kClosed) == closed + 1; })) << daemon.log();
  EXPECT_EQ(daemon.log().find(kMarker), std::string::npos) << daemon.log();
}

// Each client makes one request, so the daemon has surely taken its connection
// in, then pipelines all the rest once every client is in.
TEST_F(DaemonTest, SixtyFourPipeliningClientsAreAllAnsweredAndASixtyFifthIsClosedAtOnce) {
  constexpr std::size_t clients = 64;  // the daemon's limit
  constexpr std::size_t requests = 200;
  const Daemon daemon;
  std::latch connected(clients);
  std::latch go(1);
  const auto pipeline = [&] {
    const auto client = daemon.client();
    EXPECT_EQ(client->helperVersion(), "1.3");
    connected.count_down();
    go.wait();
    std::vector<std::future<plist::Array>> pending;
    while (pending.size() + 1 < requests) pending.push_back(client->send(helperVersion));
    for (auto& reply : pending) EXPECT_EQ(reply.get(), ipc::textReply("1.3"));
  };
  std::vector<std::thread> threads;
  while (threads.size() < clients) {
    threads.emplace_back([&] { EXPECT_EQ(outcome<std::exception>(pipeline), ""); });
  }
  // Once all are in, the sixty-fifth is closed at once.
  EXPECT_TRUE(eventually([&] { return connected.try_wait(); }, 30s) &&
              daemon.sendRaw(requestFrame(helperVersion), 1s) == "");
  go.count_down();
  for (std::thread& thread : threads) thread.join();
  // The limit counts open connections only: once they are gone a new client is served.
  EXPECT_TRUE(eventually(
      [&] { return outcome<std::exception>([&] { return daemon.client()->helperVersion(); }) == "1.3"; }));
}

}  // namespace
}  // namespace harborkeeper
