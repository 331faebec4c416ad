#include "helper/helper_listener.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "core/ipc/frame_codec.h"
#include "core/ipc/helper_client.h"
#include "core/ipc/helper_protocol.h"
#include "core/platform/state_file_test_support.h"
#include "helper/socket_endpoint.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using namespace std::chrono_literals;

struct AdmittingInspector final : PeerInspector {
  PeerExecutable inspect(int) const override { return {::getpid(), "/opt/harborkeeper"}; }
};

bool eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 2500 && !condition(); ++i) std::this_thread::sleep_for(2ms);
  return condition();
}

// A listener on a socket in a temporary directory that admits every peer.
struct Served {
  explicit Served(ListenerLimits limits)
      : listener(openListeningSocket(socketPath), service, verifier, *logger, limits) {
    listener.resume();
  }

  TemporaryDirectory temp;
  std::string socketPath = (temp.path() / "helper.sock").string();
  std::unique_ptr<Logger> logger = makeProcessLogger(LogDestination::standardError);
  HelperService service{{}, HelperServiceDependencies::system({}, *logger), *logger};
  PeerVerifier verifier{"/nonexistent",
                        {PeerVerifier::trustedAsApp("/opt/harborkeeper")},
                        std::make_unique<AdmittingInspector>()};
  HelperListener listener;
};

// Each connection's thread is joined and its descriptor closed when it ends,
// not at stop(); stop() itself does not wait for idle clients.
TEST(HelperListenerTest, ConnectionsLeaveNothingBehindAndStopClosesIdleOnesPromptly) {
  Served served({4096, 10s});
  const std::string& socketPath = served.socketPath;
  HelperListener& listener = served.listener;
  const long threads = entryCount("/proc/self/task");
  const long descriptors = entryCount();
  for (int i = 0; i < 2000; ++i) {
    const auto client = ipc::HelperClient::connect(socketPath);
    if (i % 2 == 0) (void)client->send(ipc::selectors::helperVersion);  // and leave without the reply
  }
  // Connections are accepted in order: once this one is served, all before it were accepted.
  EXPECT_EQ(ipc::HelperClient::connect(socketPath)->helperVersion(), "1.3");
  EXPECT_TRUE(eventually([&] { return listener.openConnections() == 0; }));
  EXPECT_TRUE(eventually([&] { return entryCount("/proc/self/task") == threads; }));
  EXPECT_TRUE(eventually([&] { return entryCount() == descriptors; }));

  const auto idle = ipc::HelperClient::connect(socketPath);
  EXPECT_EQ(idle->helperVersion(), "1.3");
  ASSERT_TRUE(eventually([&] { return listener.openConnections() == 1; }));
  const auto start = std::chrono::steady_clock::now();
  listener.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_THROW(idle->helperVersion(), ipc::HelperClientError);
}

// A client that sends requests but never reads the replies loses its connection once
// a reply write stalls, and the daemon goes on serving others.
TEST(HelperListenerTest, AClientThatNeverReadsItsRepliesIsClosed) {
  Served served({64, 10s, 200ms});
  const UniqueFd raw(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  served.socketPath.copy(address.sun_path, served.socketPath.size());
  ASSERT_EQ(::connect(raw.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_TRUE(eventually([&] { return served.listener.openConnections() == 1; }));
  const Bytes frame =
      ipc::encodeFrame(ipc::encodeRequest({1, std::string(ipc::selectors::helperVersion), {}}));
  Bytes burst;
  for (int i = 0; i < 200; ++i) burst.insert(burst.end(), frame.begin(), frame.end());
  EXPECT_TRUE(eventually([&] {
    (void)::send(raw.get(), burst.data(), burst.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return served.listener.openConnections() == 0;
  }));
  EXPECT_EQ(ipc::HelperClient::connect(served.socketPath)->helperVersion(), "1.3");
}

TEST(SocketEndpointTest, ReplacesOnlyAStaleSocket) {
  const TemporaryDirectory temp;
  const std::string path = (temp.path() / "helper.sock").string();
  const auto open = [&] { return outcome<EndpointError>([&] { (void)openListeningEndpoint(path); }); };
  std::optional<ListeningEndpoint> live = openListeningEndpoint(path);
  EXPECT_EQ(modeOf(path), 0666u);
  EXPECT_EQ(open(), "Another Harborkeeper helper is already listening on " + path + ".");
  live.reset();  // leaves its socket file behind
  removeBoundSocketFile(openListeningEndpoint(path));
  EXPECT_FALSE(fs::exists(path));
  writeRaw(path, "data");
  EXPECT_EQ(open(), path + " exists and is not a socket.");
  const std::string tooLong = "/tmp/" + std::string(120, 'x');
  EXPECT_EQ(outcome<EndpointError>([&] { (void)openListeningSocket(tooLong); }),
            "The socket path " + tooLong + " is not 1 to 107 bytes long.");
}

}  // namespace
}  // namespace harborkeeper
