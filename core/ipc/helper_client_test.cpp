#include "core/ipc/helper_client.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
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

TEST(HelperClientTest, OutstandingRequestsEachGetTheirOwnReplyInAnyOrder) {
  std::vector<Request> held;
  const FakeHelper server([&](FrameStream& stream, const Request& request) {
    held.push_back(request);
    if (held.size() < 3) return;
    std::reverse(held.begin(), held.end());
    for (const Request& each : held) {
      stream.writeFrame(encodeReply({each.id, textReply(*each.arguments.at(0).get<std::string>())}));
    }
  });
  const auto client = HelperClient::connect(server.path);
  // One request and reply larger than the socket buffer, so each arrives in many reads.
  const std::string arguments[] = {"a", std::string(maximumFrameLength / 2, 'b'), "c"};
  std::vector<std::future<plist::Array>> replies;
  for (const std::string& each : arguments) replies.push_back(client->send(selectors::helperVersion, {each}));
  for (std::size_t i = 0; i < replies.size(); ++i) EXPECT_EQ(replies[i].get(), textReply(arguments[i]));
}

// Threads that each pipeline more requests than the socket buffers hold and then wait out
// of order: the daemon blocks writing unless whichever sender or waiter holds the socket
// drains replies for the others.
TEST(HelperClientTest, ManyThreadsPipelineAndWaitInAnyOrder) {
  const FakeHelper server([](FrameStream& stream, const Request& request) {
    stream.writeFrame(encodeReply({request.id, textReply(*request.arguments.at(0).get<std::string>())}));
  });
  const auto client = HelperClient::connect(server.path);
  std::vector<std::jthread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      std::vector<std::future<plist::Array>> futures;
      for (int i = 0; i < 1500; ++i) futures.push_back(client->send(selectors::helperVersion, {std::to_string(t * 10000 + i)}));
      for (int i = 1499; i >= 0; i -= 1 + t) ASSERT_EQ(futures[i].get(), textReply(std::to_string(t * 10000 + i)));
      for (int i = 0; i < 1500; ++i) {
        if (futures[i].valid()) {
          ASSERT_EQ(futures[i].get(), textReply(std::to_string(t * 10000 + i)));
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
