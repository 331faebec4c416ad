#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <random>

#include "core/foundation/plist.h"
#include "core/ipc/frame_codec.h"
#include "core/ipc/helper_protocol.h"

#include "bench/soak/soak_traffic.h"

namespace harborkeeper::testing_support::soak {

namespace {

using SteadyClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The daemon gives a started frame 10 s; anything much later is a stall it missed.
constexpr milliseconds kStallCutOffLimit{15'000};
constexpr milliseconds kGarbageCloseLimit{5'000};

UniqueFd connectTo(const std::string& socket) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  socket.copy(address.sun_path, sizeof(address.sun_path) - 1);
  if (!fd || ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return {};
  return fd;
}

void sendAll(int fd, const Bytes& bytes) { (void)::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

enum class Peer { open, closedSilently, answered };

// Waits in short slices (so a stop is noticed) until the daemon closes or
// writes, or `limit` passes; a zero limit looks once.
Peer awaitClose(int fd, milliseconds limit, const std::atomic<bool>& stopping) {
  const auto deadline = SteadyClock::now() + limit;
  for (;;) {
    pollfd waiting{fd, POLLIN, 0};
    if (::poll(&waiting, 1, limit.count() == 0 ? 0 : 100) > 0) {
      char byte = 0;
      const ssize_t got = ::recv(fd, &byte, 1, MSG_DONTWAIT);
      if (got > 0) return Peer::answered;
      if (got == 0 || errno == ECONNRESET) return Peer::closedSilently;
    }
    if (stopping || SteadyClock::now() >= deadline) return Peer::open;
  }
}

Bytes framed(const Bytes& payload) { return ipc::encodeFrame(payload); }

// Each is refused whole: a bad length, bytes that are no property list, the
// wrong dictionary, an unknown selector, and wrong arguments for a real one.
std::vector<Bytes> garbageFrames(std::mt19937& random) {
  Bytes noise(1 + random() % 300);
  for (auto& byte : noise) byte = static_cast<std::uint8_t>(random());
  plist::Dictionary missingId;
  missingId.emplace("selector", std::string(ipc::selectors::helperVersion));
  missingId.emplace("arguments", plist::Array{});
  return {
      Bytes{0, 0, 0, 0},
      Bytes{0, 0x20, 0, 0},  // 2 MiB announced
      framed(noise),
      framed(plist::encode(missingId, plist::Format::binary)),
      framed(ipc::encodeRequest({7, "rebootNowWithReply:", {}})),
      framed(ipc::encodeRequest({8, std::string(ipc::selectors::armNextRestart), {std::int64_t{1}}})),
  };
}

}  // namespace

MisbehavingClients::MisbehavingClients(std::string socket, Tally& tally)
    : socket_(std::move(socket)), tally_(tally), silent_(connectTo(socket_)) {
  if (!silent_) tally_.fail("idle client: could not connect");
  threads_.emplace_back([this] { stall(); });
  threads_.emplace_back([this] { sendGarbage(); });
}

MisbehavingClients::~MisbehavingClients() { stop(); }

void MisbehavingClients::stop() {
  if (stopping_.exchange(true)) return;
  if (silent_ && awaitClose(silent_.get(), milliseconds(0), stopping_) != Peer::open) {
    tally_.fail("idle client: the daemon closed a connection that had sent nothing");
  }
  silent_.reset();
  for (std::thread& thread : threads_) thread.join();
}

// Half a frame, then nothing: the daemon must give up on it, without a reply.
void MisbehavingClients::stall() {
  while (!stopping_) {
    const UniqueFd fd = connectTo(socket_);
    if (!fd) {
      tally_.fail("stalling client: could not connect");
      return;
    }
    sendAll(fd.get(), {0, 0, 0, 64, 'b', 'p', 'l', 'i', 's', 't'});
    const auto started = SteadyClock::now();
    const Peer peer = awaitClose(fd.get(), kStallCutOffLimit, stopping_);
    const auto waited = std::chrono::duration_cast<milliseconds>(SteadyClock::now() - started).count();
    if (peer == Peer::answered) tally_.fail("stalling client: the daemon replied to half a frame");
    if (peer == Peer::open && !stopping_) tally_.fail("stalling client: not cut off after 15 s");
    if (peer != Peer::closedSilently) continue;
    ++stallsCut_;
    std::int64_t longest = longestStallMilliseconds_;
    while (waited > longest && !longestStallMilliseconds_.compare_exchange_weak(longest, waited)) {
    }
  }
}

void MisbehavingClients::sendGarbage() {
  std::mt19937 random(std::random_device{}());
  for (std::size_t round = 0; !stopping_; ++round) {
    const UniqueFd fd = connectTo(socket_);
    if (!fd) {
      tally_.fail("garbage client: could not connect");
      return;
    }
    const std::vector<Bytes> frames = garbageFrames(random);
    sendAll(fd.get(), frames[round % frames.size()]);
    switch (awaitClose(fd.get(), kGarbageCloseLimit, stopping_)) {
      case Peer::answered:
        tally_.fail("garbage client: the daemon replied to frame " + std::to_string(round % frames.size()));
        break;
      case Peer::open:
        if (!stopping_)
          tally_.fail("garbage client: frame " + std::to_string(round % frames.size()) + " not refused");
        break;
      case Peer::closedSilently:
        ++garbageConnections_;
        break;
    }
    std::this_thread::sleep_for(milliseconds(20));
  }
}

}  // namespace harborkeeper::testing_support::soak
