#include "core/ipc/frame_codec.h"

#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/platform/state_file_test_support.h"

namespace harborkeeper::ipc {
namespace {

using testing_support::outcome;

Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

void append(FrameReader& reader, const Bytes& bytes) {
  reader.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// A refused header throws on its own, without waiting for (or making room for) a payload.
TEST(FrameCodecTest, LengthsAreCheckedAtBothEndsOfTheRangeBeforeAnyPayload) {
  const std::string badLength = "The frame length is out of range.";
  const std::tuple<std::size_t, Bytes, bool> cases[] = {
      {0, {0, 0, 0, 0}, false},
      {1, {0, 0, 0, 1}, true},
      {maximumFrameLength, {0, 0x10, 0, 0}, true},
      {maximumFrameLength + 1, {0, 0x10, 0, 1}, false},
  };
  for (const auto& [length, header, accepted] : cases) {
    SCOPED_TRACE(length);
    const Bytes payload(length, 0x5a);
    const std::string expected = accepted ? "" : badLength;
    EXPECT_EQ(outcome<ProtocolError>([&, &h = header] { EXPECT_EQ(encodeFrame(payload), h + payload); }),
              expected);
    FrameReader reader;
    EXPECT_EQ(outcome<ProtocolError>([&, &h = header] { append(reader, h); }), expected);
    if (!accepted) continue;
    append(reader, payload);
    EXPECT_EQ(reader.next(), payload);
  }
  FrameReader reader;  // every header of a piece is checked, not just the first
  const Bytes twoHeaders = encodeFrame(toBytes("ok")) + Bytes{0xff, 0, 0, 0};
  EXPECT_EQ(outcome<ProtocolError>([&] { append(reader, twoHeaders); }), badLength);
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

}  // namespace
}  // namespace harborkeeper::ipc
