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
using testing_support::TemporaryDirectory;

const std::string kClosed = "The Harborkeeper helper closed the connection without replying.";
const std::string kBadReply = "The Harborkeeper helper sent a reply that could not be read.";

using Respond = std::function<void(FrameStream&, const Request&)>;

// A stand-in daemon: reads requests on one connection of a socket in a
// temporary directory and hands each to `respond`, until the client leaves.
class FakeHelper {
 public:
  explicit FakeHelper(Respond respond) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, path_.size());
    if (::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(listener_.get(), 1) != 0) {
      throw std::system_error(errno, std::generic_category(), "fake helper");
    }
    thread_ = std::thread([this, respond = std::move(respond)] {
      FrameStream stream(UniqueFd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)));
      try {
        while (auto frame = stream.readFrame(1s)) respond(stream, decodeRequest(asStringView(*frame)));
      } catch (const std::exception& error) {
        ADD_FAILURE() << error.what();
      }
    });
  }
  ~FakeHelper() { thread_.join(); }
  FakeHelper(const FakeHelper&) = delete;
  FakeHelper& operator=(const FakeHelper&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  TemporaryDirectory directory_;
  std::string path_ = (directory_.path() / "helper.sock").string();
  UniqueFd listener_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::thread thread_;
};

void reply(FrameStream& stream, std::int64_t id, plist::Array reply) {
  stream.writeFrame(encodeReply({id, std::move(reply)}));
}

void echo(FrameStream& stream, const Request& request) {
  reply(stream, request.id, textReply(*request.arguments.at(0).get<std::string>()));
}

TEST(HelperClientTest, OutstandingRequestsEachGetTheirOwnReplyInAnyOrder) {
  std::vector<Request> held;
  const FakeHelper server([&](FrameStream& stream, const Request& request) {
    held.push_back(request);
    if (held.size() < 3) return;
    std::reverse(held.begin(), held.end());
    for (const Request& each : held) echo(stream, each);
  });
  const auto client = HelperClient::connect(server.path());
  const std::string arguments[] = {"a", "b", "c"};
  std::vector<std::future<plist::Array>> replies;
  for (const std::string& argument : arguments) {
    replies.push_back(client->send(selectors::helperVersion, {argument}));
  }
  for (std::size_t i = 0; i < replies.size(); ++i) EXPECT_EQ(replies[i].get(), textReply(arguments[i]));
}

TEST(HelperClientTest, ConcurrentSendersAreNotMixedUp) {
  const FakeHelper server(echo);
  const auto client = HelperClient::connect(server.path());
  std::vector<std::thread> senders;
  senders.reserve(4);
  for (int t = 0; t < 4; ++t) {
    senders.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        const std::string argument = std::to_string(t) + "/" + std::to_string(i);
        EXPECT_EQ(client->call(selectors::helperVersion, {argument}), textReply(argument));
      }
    });
  }
  for (std::thread& sender : senders) sender.join();
}

// Whoever closes, every outstanding request fails, and later ones fail at once.
TEST(HelperClientTest, ClosingFailsEveryOutstandingRequest) {
  for (const bool daemonCloses : {true, false}) {
    SCOPED_TRACE(daemonCloses ? "daemon closes" : "client destroyed");
    int seen = 0;
    const FakeHelper server([&](FrameStream& stream, const Request&) {
      if (++seen == 2 && daemonCloses) stream.shutdown();
    });
    auto client = HelperClient::connect(server.path());
    std::future<plist::Array> first = client->send(selectors::helperVersion);
    std::future<plist::Array> second = client->send(selectors::fileVaultUsersData);
    if (!daemonCloses) client.reset();
    for (auto* future : {&first, &second}) {
      EXPECT_EQ(outcome<HelperClientError>([&] { future->get(); }), kClosed);
    }
    if (!client) continue;
    std::future<plist::Array> later = client->send(selectors::helperVersion);
    ASSERT_EQ(later.wait_for(0s), std::future_status::ready);
    EXPECT_EQ(outcome<HelperClientError>([&] { later.get(); }), kClosed);
  }
}

// An unreadable reply or an unknown id closes the client; a reply of the wrong
// shape fails only its own request.
TEST(HelperClientTest, UnreadableRepliesFailTheRequest) {
  using Answer = Bytes (*)(const Request&);
  const std::tuple<const char*, Answer, std::string> cases[] = {
      {"unknown id",
       [](const Request& r) {
         return encodeReply({r.id + 1, textReply("1.3")});
       },
       kClosed},
      {"not a reply", [](const Request&) { return toBytes("bplist00 garbage"); }, kClosed},
      {"wrong shape",
       [](const Request& r) {
         return encodeReply({r.id, optionalDataReply({})});
       },
       "1.3"},
  };
  for (const auto& [name, firstAnswer, later] : cases) {
    SCOPED_TRACE(name);
    bool answered = false;
    const FakeHelper server([&, answer = firstAnswer](FrameStream& stream, const Request& request) {
      if (!std::exchange(answered, true)) return stream.writeFrame(answer(request));
      reply(stream, request.id, textReply("1.3"));
    });
    const auto client = HelperClient::connect(server.path());
    EXPECT_EQ(outcome<HelperClientError>([&] { return client->helperVersion(); }), kBadReply);
    EXPECT_EQ(outcome<HelperClientError>([&] { return client->helperVersion(); }), later);
  }
}

TEST(HelperClientTest, UnreachableSocketNamesThePathAndTheReason) {
  const std::pair<std::string, std::string> cases[] = {
      {"/nonexistent/helper.sock", "No such file or directory"},
      {std::string(sizeof(sockaddr_un::sun_path), 'x'), "File name too long"},
  };
  for (const auto& [path, reason] : cases) {
    EXPECT_EQ(outcome<HelperClientError>([&, &path = path] { HelperClient::connect(path); }),
              "Could not reach the Harborkeeper helper at " + path + ": " + reason + ".");
  }
}

}  // namespace
}  // namespace harborkeeper::ipc
