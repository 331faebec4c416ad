#include "core/ipc/frame_codec.h"

#include <sys/socket.h>

#include <chrono>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/ipc/frame_stream.h"
#include "core/platform/state_file_test_support.h"

namespace harborkeeper::ipc {
namespace {

using namespace std::chrono_literals;
using testing_support::outcome;

const std::string kBadLength = "The frame length is out of range.";

Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

void append(FrameReader& reader, const Bytes& bytes) {
  reader.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// A refused header throws on its own, without waiting for (or making room for) a payload.
TEST(FrameCodecTest, LengthsAreCheckedAtBothEndsOfTheRangeBeforeAnyPayload) {
  const std::tuple<std::size_t, Bytes, bool> cases[] = {
      {0, {0, 0, 0, 0}, false},
      {1, {0, 0, 0, 1}, true},
      {maximumFrameLength, {0, 0x10, 0, 0}, true},
      {maximumFrameLength + 1, {0, 0x10, 0, 1}, false},
  };
  for (const auto& [length, header, accepted] : cases) {
    SCOPED_TRACE(length);
    const Bytes payload(length, 0x5a);
    const std::string expected = accepted ? "" : kBadLength;
    EXPECT_EQ(outcome<ProtocolError>([&, &h = header] { EXPECT_EQ(encodeFrame(payload), h + payload); }),
              expected);
    FrameReader reader;
    EXPECT_EQ(outcome<ProtocolError>([&, &h = header] { append(reader, h); }), expected);
    if (!accepted) continue;
    append(reader, payload);
    EXPECT_EQ(reader.next(), payload);
  }
  FrameReader reader;  // every header of a piece is checked, not just the first
  EXPECT_EQ(outcome<ProtocolError>([&] {
              append(reader, encodeFrame(toBytes("ok")) + Bytes{0xff, 0, 0, 0});
            }),
            kBadLength);
}

TEST(FrameCodecTest, FramesComeOutWholeHoweverTheBytesAreSplit) {
  const std::vector<Bytes> payloads = {toBytes("a"), Bytes(300, 'b'), toBytes("c")};  // 300 = 0x012c
  Bytes stream;
  std::set<std::size_t> boundaries = {0};
  for (const Bytes& payload : payloads) boundaries.insert((stream = stream + encodeFrame(payload)).size());
  for (const std::size_t chunk : {std::size_t{1}, std::size_t{3}, std::size_t{7}, stream.size()}) {
    SCOPED_TRACE(chunk);
    FrameReader reader;
    std::vector<Bytes> seen;
    for (std::size_t offset = 0; offset < stream.size(); offset += chunk) {
      const std::size_t end = std::min(offset + chunk, stream.size());
      reader.append(reinterpret_cast<const char*>(stream.data() + offset), end - offset);
      while (auto payload = reader.next()) seen.push_back(*payload);
      EXPECT_EQ(reader.hasPartialFrame(), !boundaries.contains(end));
    }
    EXPECT_EQ(seen, payloads);
  }
}

struct SocketPair {
  SocketPair() {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
      throw std::system_error(errno, std::generic_category());
    }
    peer = UniqueFd(fds[0]);
    stream = std::make_unique<FrameStream>(UniqueFd(fds[1]));
  }
  void send(const Bytes& bytes) const {
    ASSERT_EQ(::send(peer.get(), bytes.data(), bytes.size(), 0), ssize_t(bytes.size()));
  }

  UniqueFd peer;
  std::unique_ptr<FrameStream> stream;
};

// Frames as text, then "end" or the error that stopped reading.
std::string readAll(FrameStream& stream, std::chrono::milliseconds timeout) {
  std::string seen;
  try {
    while (auto payload = stream.readFrame(timeout)) seen += toString(*payload) + " ";
    return seen + "end";
  } catch (const ProtocolError& error) {
    return seen + error.what();
  }
}

TEST(FrameStreamTest, ReportsHowEachFrameEnded) {
  const Bytes half = Bytes{0, 0, 0, 4} + toBytes("ab");
  const std::tuple<const char*, Bytes, bool, std::string> cases[] = {
      {"pipelined then closed", encodeFrame(toBytes("x")) + encodeFrame(toBytes("y")), true, "x y end"},
      {"closed mid-frame", encodeFrame(toBytes("x")) + half, true,
       "x The connection closed in the middle of a frame."},
      {"stalled in the header", {0, 0}, false, "A frame did not complete in time."},
      {"stalled in the payload", encodeFrame(toBytes("x")) + half, false,
       "x A frame did not complete in time."},
      {"empty frame", {0, 0, 0, 0}, false, kBadLength},
  };
  for (const auto& [name, bytes, close, expected] : cases) {
    SCOPED_TRACE(name);
    SocketPair pair;
    pair.send(bytes);
    if (close) pair.peer.reset();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(readAll(*pair.stream, 100ms), expected);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_LT(elapsed, 2s);
    if (expected.ends_with("in time.")) {
      EXPECT_GE(elapsed, 100ms);
    }
  }
}

TEST(FrameStreamTest, IdlePeerMayWaitLongerThanTheFrameTimeout) {
  SocketPair pair;
  std::thread late([&] {
    std::this_thread::sleep_for(300ms);
    pair.send(encodeFrame(toBytes("late")));
    pair.peer.reset();
  });
  EXPECT_EQ(readAll(*pair.stream, 100ms), "late end");
  late.join();
}

TEST(FrameStreamTest, ShutdownWakesABlockedReaderAndStopsTheStream) {
  for (const Bytes& buffered : {Bytes{}, Bytes{0, 0}}) {
    SCOPED_TRACE(buffered.size());
    SocketPair pair;
    pair.send(buffered);
    std::thread reader([&] { EXPECT_EQ(readAll(*pair.stream, 1h), "end"); });
    std::this_thread::sleep_for(50ms);
    pair.stream->shutdown();
    reader.join();
    EXPECT_EQ(readAll(*pair.stream, 1h), "end");
    EXPECT_THROW(pair.stream->writeFrame(toBytes("after")), std::system_error);
  }
}

TEST(FrameStreamTest, WritesLargeFramesWholeAndFailsWithoutSignalWhenThePeerIsGone) {
  SocketPair pair;
  FrameStream peer(std::move(pair.peer));
  const Bytes largest(maximumFrameLength, 'z');  // more than the socket buffer holds
  std::thread writer([&] { peer.writeFrame(largest); });
  EXPECT_EQ(pair.stream->readFrame(1s), largest);
  writer.join();
  pair.stream.reset();
  EXPECT_THROW(peer.writeFrame(toBytes("gone")), std::system_error);  // SIGPIPE would end the test
}

}  // namespace
}  // namespace harborkeeper::ipc
