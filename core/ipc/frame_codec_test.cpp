#include "core/ipc/frame_codec.h"

#include <string>

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

// Frames split anywhere come out whole: fuzz_helper_request checks that over its
// corpus, which ctest replays.

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

}  // namespace
}  // namespace harborkeeper::ipc
