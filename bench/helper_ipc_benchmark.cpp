#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <benchmark/benchmark.h>

#include "core/ipc/frame_codec.h"
#include "core/ipc/helper_client.h"
#include "core/ipc/helper_protocol.h"
#include "core/platform/command_runner.h"
#include "helper/helper_listener.h"
#include "helper/helper_service.h"
#include "helper/peer_check.h"
#include "helper/socket_endpoint.h"

namespace {

namespace fs = std::filesystem;
using namespace harborkeeper;
using Clock = std::chrono::steady_clock;

class SilentLogger final : public Logger {
 public:
  void log(LogLevel, std::string_view) noexcept override {}
};

// Removed with its contents when the servers in it are gone.
class TemporaryDirectory final {
 public:
  TemporaryDirectory() {
    if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  }
  ~TemporaryDirectory() { fs::remove_all(path_); }
  [[nodiscard]] fs::path operator/(std::string_view name) const { return fs::path(path_) / name; }

 private:
  std::string path_ = "/tmp/harborkeeper-bench-XXXXXX";
};

sockaddr_un unixAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  return address;
}

UniqueFd connectTo(const std::string& path) {
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = unixAddress(path);
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) return {};
  return socket;
}

UniqueFd listenAt(const std::string& path) {
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = unixAddress(path);
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(socket.get(), SOMAXCONN) != 0) {
    throw std::runtime_error("cannot listen at " + path);
  }
  return socket;
}

// Sends `message` and reads back as many bytes: one echo.
bool echoRoundTrip(int fd, const std::string& message) {
  if (::send(fd, message.data(), message.size(), MSG_NOSIGNAL) != ssize_t(message.size())) return false;
  char buffer[512];
  for (std::size_t got = 0; got < message.size();) {
    const ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
    if (n <= 0) return false;
    got += std::size_t(n);
  }
  return true;
}

// The baseline: a thread that echoes every byte of one connection after another.
class EchoServer final {
 public:
  explicit EchoServer(std::string path) : path_(std::move(path)), listening_(listenAt(path_)) {
    thread_ = std::thread([this] { serve(); });
  }
  ~EchoServer() {
    stopping_ = true;
    connectTo(path_);  // wakes accept
    thread_.join();
  }
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  void serve() {
    while (!stopping_) {
      const UniqueFd connection(::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      char buffer[512];
      for (ssize_t n; (n = ::recv(connection.get(), buffer, sizeof(buffer), 0)) > 0;) {
        ::send(connection.get(), buffer, std::size_t(n), MSG_NOSIGNAL);
      }
    }
  }

  std::string path_;
  UniqueFd listening_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

// The daemon's listener and service in this process, trusting this binary
// through the peer check it runs on every connection; beside it the echo.
class Servers final {
 public:
  Servers()
      : service_(configuration(directory_), HelperServiceDependencies::system(configuration(directory_), logger_),
                 logger_),
        verifier_((directory_ / "absent-registry.plist").string(),
                  {PeerVerifier::trustedAsApp(fs::canonical("/proc/self/exe").string())},
                  makeProcPeerInspector(::getuid()), ::getuid()),
        listener_(openListeningSocket(helperPath()), service_, verifier_, logger_),
        echo_((directory_ / "echo.sock").string()) {
    listener_.resume();
  }
  ~Servers() { listener_.stop(); }
  [[nodiscard]] std::string helperPath() const { return (directory_ / "helper.sock").string(); }
  [[nodiscard]] const std::string& echoPath() const { return echo_.path(); }

 private:
  static HelperServiceConfiguration configuration(const TemporaryDirectory& directory) {
    HelperServiceConfiguration configuration;
    configuration.stateDirectory = (directory / "state").string();
    configuration.stateOwner = ::getuid();
    return configuration;
  }

  TemporaryDirectory directory_;
  SilentLogger logger_;
  HelperService service_;
  PeerVerifier verifier_;
  HelperListener listener_;
  EchoServer echo_;
};

// A request frame of the size the client sends.
const std::string& versionRequestFrame() {
  static const std::string frame =
      toString(ipc::encodeFrame(ipc::encodeRequest({1, std::string(ipc::selectors::helperVersion), {}})));
  return frame;
}

// Runs `baseline` and `measured` in alternation, so load from elsewhere hits
// both alike; "ratio" is measured time over baseline time.
template <class Baseline, class Measured>
void alternate(benchmark::State& state, Baseline baseline, Measured measured) {
  Clock::duration raw{};
  Clock::duration helper{};
  for ([[maybe_unused]] auto _ : state) {
    const auto start = Clock::now();
    const bool rawOk = baseline();
    const auto middle = Clock::now();
    const bool helperOk = measured();
    raw += middle - start;
    helper += Clock::now() - middle;
    if (!rawOk || !helperOk) state.SkipWithError("a round trip failed");
  }
  const auto perRunMicroseconds = [&](Clock::duration total) {
    return std::chrono::duration<double, std::micro>(total).count() / double(state.iterations());
  };
  state.counters["raw_us"] = perRunMicroseconds(raw);
  state.counters["helper_us"] = perRunMicroseconds(helper);
  state.counters["ratio"] = perRunMicroseconds(helper) / perRunMicroseconds(raw);
}

// One version request on an open connection; target ratio <= 3.
void BM_HelperVersionOverRawEcho(benchmark::State& state) {
  const Servers servers;
  const UniqueFd echo = connectTo(servers.echoPath());
  const auto client = ipc::HelperClient::connect(servers.helperPath());
  alternate(
      state, [&] { return echoRoundTrip(echo.get(), versionRequestFrame()); },
      [&] { return client->helperVersion() == "1.3"; });
}
BENCHMARK(BM_HelperVersionOverRawEcho)->UseRealTime();

// Connect, peer check, one request, close; target ratio <= 5.
void BM_FreshHelperConnectionOverRawConnect(benchmark::State& state) {
  const Servers servers;
  alternate(
      state,
      [&] {
        const UniqueFd echo = connectTo(servers.echoPath());
        return echo && echoRoundTrip(echo.get(), versionRequestFrame());
      },
      [&] { return ipc::HelperClient::connect(servers.helperPath())->helperVersion() == "1.3"; });
}
BENCHMARK(BM_FreshHelperConnectionOverRawConnect)->UseRealTime();

}  // namespace
