#include "helper/helper_listener.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/ipc/frame_codec.h"
#include "core/ipc/helper_client.h"
#include "core/platform/state_file_test_support.h"
#include "helper/socket_endpoint.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

const std::string kClient = "/opt/harborkeeper/bin/harborkeeper";

class FakeInspector final : public PeerInspector {
 public:
  explicit FakeInspector(bool admit) : admit_(admit) {}
  // A refusal waits (without reading) until the request has arrived, so the
  // test shows it is dropped rather than never sent.
  PeerExecutable inspect(int socket) const override {
    if (admit_) return {::getpid(), kClient};
    pollfd entry{socket, POLLIN, 0};
    (void)::poll(&entry, 1, 1000);
    throw PeerCheckError(PeerCheckError::Kind::executableInsecure, "/tmp/evil is writable by others.");
  }

 private:
  bool admit_;
};

class CountingExecutor final : public CommandExecutor {
 public:
  CommandResult run(const std::string&, const std::vector<std::string>&, std::optional<std::string_view>,
                    std::optional<double>) const noexcept override {
    ++runs;
    return {"alice", "", 0, false};
  }
  mutable std::atomic<int> runs{0};
};

// Debug lines are not kept: they are not part of what an operator sees.
class CapturingLogger final : public Logger {
 public:
  void log(LogLevel level, std::string_view message) noexcept override {
    if (level == LogLevel::debug) return;
    const std::lock_guard lock(mutex_);
    lines_.emplace_back(message);
  }
  std::vector<std::string> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = 5s) {
  for (const auto deadline = Clock::now() + limit; Clock::now() < deadline;
       std::this_thread::sleep_for(2ms)) {
    if (condition()) return true;
  }
  return condition();
}

UniqueFd connectRaw(const std::string& path) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  EXPECT_EQ(::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  return fd;
}

void sendAll(int fd, std::string_view bytes) {
  EXPECT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
}

// What the daemon sent before it closed, or "timeout" if it kept the connection open.
std::string readUntilClosed(int fd, std::chrono::milliseconds limit = 5s) {
  std::string received;
  for (const auto deadline = Clock::now() + limit;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd entry{fd, POLLIN, 0};
    if (left <= 0ms || ::poll(&entry, 1, int(left.count())) == 0) return "timeout";
    char chunk[4096];
    const ssize_t count = ::recv(fd, chunk, sizeof chunk, 0);
    if (count <= 0) return received;
    received.append(chunk, std::size_t(count));
  }
}

std::string frame(std::uint32_t length, std::string_view payload) {
  std::string bytes{char(length >> 24), char(length >> 16), char(length >> 8), char(length)};
  return bytes.append(payload);
}

std::string framed(std::string_view payload) { return frame(std::uint32_t(payload.size()), payload); }

std::string requestFrame(std::string_view selector, plist::Array arguments = {}) {
  return framed(toString(ipc::encodeRequest({1, std::string(selector), std::move(arguments)})));
}

struct Harness {
  explicit Harness(bool admit = true, ListenerLimits limits = {})
      : admitting(admit), listener(openListeningSocket(socketPath), service, verifier, logger, limits) {
    listener.resume();
  }

  const TemporaryDirectory temp;
  const std::string socketPath = (temp.path() / "helper.sock").string();
  CapturingLogger logger;
  const std::shared_ptr<CountingExecutor> executor = std::make_shared<CountingExecutor>();
  HelperService service{{}, executor, logger};
  const bool admitting;
  PeerVerifier verifier{(temp.path() / "absent.plist").string(),
                        {PeerVerifier::trustedAsApp(kClient)},
                        std::make_unique<FakeInspector>(admitting),
                        ::getuid()};
  HelperListener listener;
};

TEST(HelperListenerTest, ServesTheVersionOverTheClient) {
  Harness harness;
  EXPECT_EQ(ipc::HelperClient::connect(harness.socketPath)->helperVersion(), "1.3");
  EXPECT_EQ(harness.logger.take(), std::vector<std::string>{});
}

// Each fault closes its own connection without a reply and is logged once,
// without the bytes that caused it; a client next to it is still served.
TEST(HelperListenerTest, MalformedInputClosesOnlyThatConnection) {
  Harness harness(true, {64, 200ms});
  const auto bystander = ipc::HelperClient::connect(harness.socketPath);
  plist::Dictionary noId{{"selector", "secret-selector"}, {"arguments", plist::Array{}}};
  const std::tuple<const char*, std::string, bool, std::string> cases[] = {
      // name, bytes, whether the client closes its side afterwards, text the log line must not carry
      {"length 0", frame(0, ""), false, ""},
      {"length over 1 MiB", frame((1u << 20) + 1, "secret"), false, "secret"},
      {"truncated", requestFrame("secret:").substr(0, 20), true, "secret"},
      {"stalled", requestFrame("secret:").substr(0, 20), false, "secret"},
      {"not a plist", framed("secret text"), false, "secret"},
      {"no id", framed(toString(plist::encode(noId, plist::Format::binary))), false, "secret"},
      {"unknown selector", requestFrame("secretWithReply:"), false, "secret"},
      {"extra argument", requestFrame(ipc::selectors::helperVersion, {"secret"}), false, "secret"},
      {"wrong argument type", requestFrame(ipc::selectors::fileVaultUsersData, {42}), false, "42"},
  };
  for (const auto& [name, bytes, halfClose, secret] : cases) {
    SCOPED_TRACE(name);
    const UniqueFd fd = connectRaw(harness.socketPath);
    const auto start = Clock::now();
    sendAll(fd.get(), bytes);
    if (halfClose) ::shutdown(fd.get(), SHUT_WR);
    EXPECT_EQ(readUntilClosed(fd.get()), "");
    if (std::string(name) == "stalled") {
      EXPECT_GE(Clock::now() - start, 190ms);
    }
    const std::vector<std::string> lines = harness.logger.take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].starts_with("Closed a connection: ")) << lines[0];
    if (!secret.empty()) {
      EXPECT_EQ(lines[0].find(secret), std::string::npos) << lines[0];
    }
    EXPECT_EQ(bystander->helperVersion(), "1.3");
  }
  EXPECT_EQ(harness.executor->runs, 0);
}

TEST(HelperListenerTest, RefusedPeerGetsNoReplyAndReachesNoService) {
  Harness harness(false);
  const UniqueFd fd = connectRaw(harness.socketPath);
  sendAll(fd.get(), requestFrame(ipc::selectors::fileVaultUsersData));
  EXPECT_EQ(readUntilClosed(fd.get()), "");
  EXPECT_EQ(harness.logger.take(),
            std::vector<std::string>{"Refused a client: /tmp/evil is writable by others."});
  EXPECT_EQ(harness.executor->runs, 0);
}

TEST(HelperListenerTest, ConnectionsOverTheLimitAreClosedAtOnce) {
  Harness harness(true, {4, 10s});
  std::vector<std::unique_ptr<ipc::HelperClient>> clients;
  for (int i = 0; i < 4; ++i) {
    clients.push_back(ipc::HelperClient::connect(harness.socketPath));
    EXPECT_EQ(clients.back()->helperVersion(), "1.3");
  }
  const UniqueFd extra = connectRaw(harness.socketPath);
  const std::string request = requestFrame(ipc::selectors::helperVersion);
  (void)::send(extra.get(), request.data(), request.size(), MSG_NOSIGNAL);  // may find it closed already
  EXPECT_EQ(readUntilClosed(extra.get(), 1s), "");
  EXPECT_EQ(harness.logger.take(),
            std::vector<std::string>{"Refused a connection: 4 connections are open already."});

  clients.pop_back();
  ASSERT_TRUE(eventually([&] { return harness.listener.openConnections() == 3; }));
  EXPECT_EQ(ipc::HelperClient::connect(harness.socketPath)->helperVersion(), "1.3");
}

TEST(HelperListenerTest, StopClosesIdleConnectionsPromptly) {
  Harness harness;
  std::vector<std::unique_ptr<ipc::HelperClient>> clients;
  clients.reserve(3);
  for (int i = 0; i < 3; ++i) clients.push_back(ipc::HelperClient::connect(harness.socketPath));
  const UniqueFd silent = connectRaw(harness.socketPath);
  for (const auto& client : clients) EXPECT_EQ(client->helperVersion(), "1.3");
  ASSERT_TRUE(eventually([&] { return harness.listener.openConnections() == 4; }));

  const auto start = Clock::now();
  harness.listener.stop();
  EXPECT_LT(Clock::now() - start, 1s);
  EXPECT_EQ(harness.listener.openConnections(), 0u);
  EXPECT_EQ(readUntilClosed(silent.get()), "");
  EXPECT_THROW(clients[0]->helperVersion(), ipc::HelperClientError);
  harness.listener.stop();  // again: nothing left to do
}

// Many busy clients, then many short ones: every connection's thread is joined
// and its descriptor closed once it ends, not at stop().
TEST(HelperListenerTest, FinishedConnectionsLeaveNoThreadsOrDescriptors) {
  Harness harness(true, {4096, 10s});  // short connections may outpace their threads' ends
  const long threads = entryCount("/proc/self/task");
  const long descriptors = entryCount();
  std::vector<std::thread> drivers;
  drivers.reserve(64);
  for (int i = 0; i < 64; ++i) {
    drivers.emplace_back([&] {
      const auto client = ipc::HelperClient::connect(harness.socketPath);
      for (int request = 0; request < 200; ++request) EXPECT_EQ(client->helperVersion(), "1.3");
    });
  }
  for (std::thread& driver : drivers) driver.join();
  for (int i = 0; i < 2000; ++i) {
    const UniqueFd fd = connectRaw(harness.socketPath);
    if (i % 2 == 0) sendAll(fd.get(), requestFrame(ipc::selectors::helperVersion));
  }
  // Connections are accepted in order: once this one is served, every one before it was accepted.
  EXPECT_EQ(ipc::HelperClient::connect(harness.socketPath)->helperVersion(), "1.3");
  EXPECT_TRUE(eventually([&] { return harness.listener.openConnections() == 0; }));
  EXPECT_TRUE(eventually([&] { return entryCount("/proc/self/task") == threads; }))
      << entryCount("/proc/self/task") << " threads, " << threads << " before";
  EXPECT_TRUE(eventually([&] { return entryCount() == descriptors; }));
  EXPECT_EQ(harness.logger.take(), std::vector<std::string>{});
}

TEST(SocketEndpointTest, ReplacesOnlyAStaleSocket) {
  const TemporaryDirectory temp;
  const std::string path = (temp.path() / "helper.sock").string();
  const std::string tooLong = "/tmp/" + std::string(120, 'x');
  std::optional<ListeningEndpoint> live;
  const std::tuple<const char*, std::function<void()>, std::string> cases[] = {
      {"no file", [] {}, ""},
      {"stale socket", [&] { (void)openListeningEndpoint(path).socket; }, ""},
      {"live socket", [&] { live = openListeningEndpoint(path); },
       "Another Harborkeeper helper is already listening on " + path + "."},
      {"regular file", [&] { writeRaw(path, "data"); }, path + " exists and is not a socket."},
  };
  for (const auto& [name, prepare, error] : cases) {
    SCOPED_TRACE(name);
    fs::remove(path);
    prepare();
    const std::string outcome = testing_support::outcome<EndpointError>([&] {
      const ListeningEndpoint endpoint = openListeningEndpoint(path);
      EXPECT_EQ(modeOf(path), 0666u);
      removeBoundSocketFile(endpoint);
      EXPECT_FALSE(fs::exists(path));
    });
    EXPECT_EQ(outcome, error);
    live.reset();
  }
  EXPECT_EQ(outcome<EndpointError>([&] { (void)openListeningSocket(tooLong); }),
            "The socket path " + tooLong + " is not 1 to 107 bytes long.");
}

}  // namespace
}  // namespace harborkeeper
