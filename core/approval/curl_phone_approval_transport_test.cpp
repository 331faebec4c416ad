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

// A loopback listener; with `answer` set, it serves one connection: reads
// the request (head and Content-Length body) and writes `answer` back.
class LoopbackServer {
 public:
  explicit LoopbackServer(std::optional<std::string> answer = std::nullopt) {
    listener_ = UniqueFd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_.get(), 4) != 0 ||
        ::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      ADD_FAILURE() << "no loopback listener";
    }
    port_ = ntohs(address.sin_port);
    if (answer) server_ = std::thread([this, reply = std::move(*answer)] { serveOnce(reply); });
  }
  ~LoopbackServer() {
    if (server_.joinable()) server_.join();
  }
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  [[nodiscard]] std::string url(std::string_view path = "/") const {
    return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
  }
  // The request as received; read after the response arrived.
  [[nodiscard]] const std::string& received() {
    if (server_.joinable()) server_.join();
    return received_;
  }
  void close() { listener_ = UniqueFd(); }

 private:
  void serveOnce(const std::string& reply) {
    const UniqueFd connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection) return;
    char buffer[4096];
    while (!requestComplete()) {
      const ssize_t count = ::read(connection.get(), buffer, sizeof buffer);
      if (count <= 0) break;
      received_.append(buffer, static_cast<std::size_t>(count));
    }
    for (std::size_t sent = 0; sent < reply.size();) {
      const ssize_t count = ::send(connection.get(), reply.data() + sent, reply.size() - sent, MSG_NOSIGNAL);
      if (count <= 0) break;
      sent += static_cast<std::size_t>(count);
    }
  }

  [[nodiscard]] bool requestComplete() const {
    const auto headEnd = received_.find("\r\n\r\n");
    if (headEnd == std::string::npos) return false;
    const auto field = received_.find("Content-Length: ");
    const std::size_t bodyLength = field < headEnd ? std::stoul(received_.substr(field + 16)) : 0;
    return received_.size() >= headEnd + 4 + bodyLength;
  }

  UniqueFd listener_;
  std::uint16_t port_ = 0;
  std::thread server_;
  std::string received_;
};

std::string httpAnswer(std::string_view statusLine, std::string_view body, std::string_view extra = "") {
  std::string answer = "HTTP/1.1 ";
  answer.append(statusLine).append("\r\nContent-Length: ").append(std::to_string(body.size()));
  answer.append("\r\nConnection: close\r\n").append(extra).append("\r\n").append(body);
  return answer;
}

PhoneApprovalHTTPRequest request(std::string method, std::string url, std::optional<std::string> body) {
  return {std::move(method),
          std::move(url),
          {{"accept", "application/json"}, {"x-test", "1"}},
          std::move(body),
          5s};
}

TEST(CurlPhoneApprovalTransportTest, SendsMethodHeadersAndBodyAsGiven) {
  const struct {
    std::string method;
    std::optional<std::string> body;
    std::string_view startLine;
    std::string tail;  // the end of what the server receives
  } cases[] = {
      {"POST", std::string(1500, 'b'), "POST /v1/x HTTP/1.1\r\n",
       "Content-Length: 1500\r\n\r\n" + std::string(1500, 'b')},
      {"POST", std::nullopt, "POST /v1/x HTTP/1.1\r\n", "Content-Length: 0\r\n\r\n"},
      {"PATCH", R"({"displayName":"n"})", "PATCH /v1/x HTTP/1.1\r\n", "\r\n\r\n{\"displayName\":\"n\"}"},
      {"DELETE", std::nullopt, "DELETE /v1/x HTTP/1.1\r\n", "x-test: 1\r\n\r\n"},
      {"GET", std::nullopt, "GET /v1/x HTTP/1.1\r\n", "x-test: 1\r\n\r\n"},
  };
  for (const auto& testCase : cases) {
    SCOPED_TRACE(testCase.method);
    LoopbackServer server(httpAnswer("201 Created", "{\"ok\":true}"));
    const auto response =
        CurlPhoneApprovalTransport().response(request(testCase.method, server.url("/v1/x"), testCase.body));
    EXPECT_EQ(response.statusCode, 201);
    EXPECT_EQ(response.body, "{\"ok\":true}");
    const std::string& received = server.received();
    EXPECT_TRUE(received.starts_with(testCase.startLine)) << received;
    EXPECT_TRUE(received.ends_with(testCase.tail)) << received;
    EXPECT_NE(received.find("\r\naccept: application/json\r\n"), std::string::npos) << received;
    EXPECT_EQ(received.find("Expect:"), std::string::npos) << received;
    EXPECT_EQ(received.find("x-www-form-urlencoded"), std::string::npos) << received;
  }
}

TEST(CurlPhoneApprovalTransportTest, RedirectsAreNotFollowedAndLongBodiesAreCut) {
  LoopbackServer redirecting(httpAnswer("302 Found", "", "Location: http://127.0.0.1:9/elsewhere\r\n"));
  EXPECT_EQ(CurlPhoneApprovalTransport().response(request("GET", redirecting.url(), std::nullopt)).statusCode,
            302);

  LoopbackServer flooding(httpAnswer("200 OK", std::string(3 * kPhoneApprovalMaxResponseBytes, '{')));
  const auto response = CurlPhoneApprovalTransport().response(request("GET", flooding.url(), std::nullopt));
  EXPECT_EQ(response.statusCode, 200);
  EXPECT_EQ(response.body.size(), kPhoneApprovalMaxResponseBytes + 1);
}

TEST(CurlPhoneApprovalTransportTest, FailuresSayWhatFailed) {
  LoopbackServer closed;
  const std::string closedURL = closed.url();
  closed.close();
  LoopbackServer silent;  // accepts connections but never answers
  auto slow = request("GET", silent.url(), std::nullopt);
  slow.timeout = 1s;

  const struct {
    PhoneApprovalHTTPRequest request;
    HttpFailureKind kind;
    std::string_view start;
  } cases[] = {
      {request("GET", closedURL, std::nullopt), HttpFailureKind::connection,
       "Phone approval middleware could not be reached: could not connect ("},
      {slow, HttpFailureKind::timeout,
       "Phone approval middleware could not be reached: timed out after 1 s ("},
      {request("GET", "ftp://127.0.0.1/", std::nullopt), HttpFailureKind::other,
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

TEST(CurlPhoneApprovalTransportTest, FailureWordsForTheHeartbeatToo) {
  const struct {
    int code;
    std::string_view detail;
    std::string_view description;
  } cases[] = {
      {6, "Could not resolve host: nowhere", "could not resolve host (Could not resolve host: nowhere)"},
      {7, "", "could not connect"},
      {60, "SSL certificate problem",
       "the server's certificate could not be verified (SSL certificate problem)"},
      {28, "", "timed out after 60 s"},
      {35, "", "the request failed"},
  };
  for (const auto& testCase : cases) {
    SCOPED_TRACE(testCase.code);
    EXPECT_EQ(httpFailureDescription(testCase.code, testCase.detail, 60s), testCase.description);
  }
}

}  // namespace
}  // namespace harborkeeper
