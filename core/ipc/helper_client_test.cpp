#include "core/ipc/helper_client.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/platform/state_file_test_support.h"

namespace harborkeeper::ipc {
namespace {

using namespace std::chrono_literals;
using testing_support::outcome;

// The reply a stand-in daemon gives: the request's first argument as text.
Bytes echo(const Request& request) {
  return encodeReply({request.id, textReply(*request.arguments.at(0).get<std::string>())});
}

// A stand-in daemon: hands each request of one connection to `respond` until the client leaves.
struct FakeHelper {
  explicit FakeHelper(std::function<void(FrameStream&, const Request&)> respond) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    EXPECT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(::listen(listener.get(), 1), 0);
    thread = std::jthread([this, respond = std::move(respond)] {
      FrameStream stream(UniqueFd(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)));
      while (auto frame = stream.readFrame(1s)) respond(stream, decodeRequest(asStringView(*frame)));
    });
  }

  testing_support::TemporaryDirectory directory;
  std::string path = (directory.path() / "helper.sock").string();
  UniqueFd listener{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::jthread thread;  // last, so it is joined first
};

// Threads that each pipeline more requests than the socket buffers hold and then wait out
// of order: the daemon blocks writing unless whichever sender or waiter holds the socket
// drains replies for the others.
TEST(HelperClientTest, ManyThreadsPipelineAndWaitInAnyOrder) {
  const FakeHelper server(
      [](FrameStream& stream, const Request& request) { stream.writeFrame(echo(request)); });
  const auto client = HelperClient::connect(server.path);
  std::vector<std::jthread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      std::vector<std::future<plist::Array>> futures;
      futures.reserve(1500);
      const auto text = [t](int i) {
        return i == 7 ? std::string(maximumFrameLength / 2, char('a' + t)) : std::to_string(t * 10000 + i);
      };
      for (int i = 0; i < 1500; ++i) futures.push_back(client->send(selectors::helperVersion, {text(i)}));
      // A stride first, then the rest, both from the newest down.
      for (const int stride : {1 + t, 1}) {
        for (int i = 1499; i >= 0; i -= stride) {
          if (!futures[i].valid()) continue;
          ASSERT_EQ(futures[i].get(), textReply(text(i)));
        }
      }
    });
  }
}

// Whoever closes, every outstanding request fails, and later ones fail at once. The second
// request is larger than the socket buffer, so a daemon that closes after the first one
// leaves it half written: that must fail it, not raise SIGPIPE.
TEST(HelperClientTest, ClosingFailsEveryOutstandingRequest) {
  const std::string closed = "The Harborkeeper helper closed the connection without replying.";
  for (const bool daemonCloses : {true, false}) {
    SCOPED_TRACE(daemonCloses ? "daemon closes" : "client destroyed");
    const FakeHelper server([&](FrameStream& stream, const Request&) {
      if (daemonCloses) stream.shutdown();
    });
    auto client = HelperClient::connect(server.path);
    auto first = client->send(selectors::helperVersion);
    auto second = client->send(selectors::fileVaultUsersData, {std::string(maximumFrameLength / 2, 'x')});
    if (!daemonCloses) client.reset();
    for (auto* future : {&first, &second}) {
      EXPECT_EQ(outcome<HelperClientError>([&] { future->get(); }), closed);
    }
    if (!client) continue;
    auto later = client->send(selectors::helperVersion);
    ASSERT_EQ(later.wait_for(0s), std::future_status::ready);
    EXPECT_EQ(outcome<HelperClientError>([&] { later.get(); }), closed);
  }
}

}  // namespace
}  // namespace harborkeeper::ipc
