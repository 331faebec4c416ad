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

// That each connection's thread and descriptor go with it, and that stop()
// does not wait for idle clients, is proven against the real daemon by
// soak_test (descriptor and thread counts) and helper_daemon_test.

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
