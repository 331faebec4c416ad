#include "core/approval/curl_phone_approval_transport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include <gtest/gtest.h>

#include "core/platform/unique_fd.h"

namespace harborkeeper {
namespace {

using namespace std::chrono_literals;

// A loopback listener; with `answer` set, it writes `answer` to its first
// connection once the request head has arrived.
class LoopbackServer {
 public:
  explicit LoopbackServer(std::optional<std::string> answer = std::nullopt)
      : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_.get(), 4) != 0 ||
        ::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      ADD_FAILURE() << "no loopback listener";
    }
    url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
    if (answer) server_ = std::thread([this, reply = std::move(*answer)] { serveOnce(reply); });
  }
  ~LoopbackServer() {
    if (server_.joinable()) server_.join();
  }

  std::string url;

 private:
  void serveOnce(const std::string& reply) const {
    const UniqueFd connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    std::string received;
    char buffer[4096];
    for (ssize_t count; received.find("\r\n\r\n") == std::string::npos &&
                        (count = ::read(connection.get(), buffer, sizeof buffer)) > 0;) {
      received.append(buffer, static_cast<std::size_t>(count));
    }
    for (std::size_t sent = 0; sent < reply.size();) {
      const ssize_t count = ::send(connection.get(), reply.data() + sent, reply.size() - sent, MSG_NOSIGNAL);
      if (count <= 0) break;
      sent += static_cast<std::size_t>(count);
    }
  }

  UniqueFd listener_;
  std::thread server_;
};

PhoneApprovalHTTPRequest get(std::string url) { return {"GET", std::move(url), {}, std::nullopt, 5s}; }

TEST(CurlPhoneApprovalTransportTest, RedirectsAreNotFollowedAndLongBodiesAreCut) {
  LoopbackServer redirecting(
      "HTTP/1.1 302 Found\r\nLocation: http://127.0.0.1:9/elsewhere\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(CurlPhoneApprovalTransport().response(get(redirecting.url)).statusCode, 302);

  const std::string flood(3 * kPhoneApprovalMaxResponseBytes, '{');
  LoopbackServer flooding("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(flood.size()) +
                          "\r\nConnection: close\r\n\r\n" + flood);
  const auto response = CurlPhoneApprovalTransport().response(get(flooding.url));
  EXPECT_EQ(response.statusCode, 200);
  EXPECT_EQ(response.body.size(), kPhoneApprovalMaxResponseBytes + 1);
}

TEST(CurlPhoneApprovalTransportTest, FailuresSayWhatFailed) {
  LoopbackServer silent;  // accepts connections but never answers
  auto slow = get(silent.url);
  slow.timeout = 1s;
  const struct {
    PhoneApprovalHTTPRequest request;
    HttpFailureKind kind;
    std::string_view start;
  } cases[] = {
      {slow, HttpFailureKind::timeout,
       "Phone approval middleware could not be reached: timed out after 1 s ("},
      {get("ftp://127.0.0.1/"), HttpFailureKind::other,
       "Phone approval middleware could not be reached: the request failed ("},
  };
  for (const auto& testCase : cases) {
    SCOPED_TRACE(testCase.request.url);
    try {
      (void)CurlPhoneApprovalTransport().response(testCase.request);
      ADD_FAILURE() << "answered";
    } catch (const PhoneApprovalTransportError& error) {
      EXPECT_EQ(error.kind(), testCase.kind);
      EXPECT_TRUE(std::string_view(error.what()).starts_with(testCase.start)) << error.what();
    }
  }
}

// The phone approval and heartbeat end-to-end tests prove the words for a
// refused connection, an unverifiable certificate and a timeout with detail.
TEST(CurlPhoneApprovalTransportTest, FailureWordsForTheHeartbeatToo) {
  EXPECT_EQ(httpFailureDescription(6, "Could not resolve host: nowhere", 60s),
            "could not resolve host (Could not resolve host: nowhere)");
  EXPECT_EQ(httpFailureDescription(28, "", 60s), "timed out after 60 s");
}

}  // namespace
}  // namespace harborkeeper
