// Malformed and stalled input: only the offending connection closes, without a
// reply, and the log names why but never repeats what the peer sent.
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "core/foundation/plist.h"
#include "core/ipc/frame_codec.h"
#include "core/ipc/helper_protocol.h"

#include "tests/integration/daemon_harness.h"

namespace harborkeeper {
namespace {

using namespace testing_support;

constexpr char kClosed[] = "Closed a connection";
constexpr char kMarker[] = "MARKER";  // in every payload below, so it must never reach the log

std::string lengthHeader(std::uint32_t length) {
  return {char(length >> 24), char(length >> 16), char(length >> 8), char(length)};
}

std::string frame(const Bytes& payload) {
  return lengthHeader(std::uint32_t(payload.size())) + toString(payload);
}

std::string requestFrame(std::string selector, plist::Array arguments) {
  return frame(ipc::encodeRequest({1, std::move(selector), std::move(arguments)}));
}

// A request to the first selector that takes arguments, each of the wrong
// type; while none takes any, arguments that are not an array.
std::string wrongTypeFrame() {
  for (const ipc::InterfaceEntry& entry : ipc::helperInterface()) {
    if (entry.arguments.empty()) continue;
    const plist::Array arguments(entry.arguments.size(), plist::Dictionary{{"note", "MARKER-wrong-type"}});
    return requestFrame(std::string(entry.selector), arguments);
  }
  const plist::Dictionary request{{"id", 1},
                                  {"selector", std::string(ipc::selectors::helperVersion)},
                                  {"arguments", "MARKER-not-an-array"}};
  return frame(plist::encode(request, plist::Format::binary));
}

struct BadInput {
  const char* name;
  std::string bytes;
  bool thenCloseWriting = false;
};

std::vector<BadInput> badInputs() {
  const plist::Dictionary xmlRequest{{"id", 1},
                                     {"selector", std::string(ipc::selectors::helperVersion)},
                                     {"arguments", plist::Array{}},
                                     {"note", "MARKER-xml"}};
  return {
      {"length 0", lengthHeader(0) + "MARKER-zero"},
      {"length over 1 MiB", lengthHeader((1u << 20) + 1) + "MARKER-oversized"},
      {"truncated frame, then close", lengthHeader(64) + "MARKER-truncated", true},
      {"not a property list", frame(toBytes("MARKER-plain-text"))},
      {"XML property list", frame(plist::encode(xmlRequest, plist::Format::xml))},
      {"unknown selector", requestFrame("MARKERUnknownWithReply:", {})},
      {"wrong argument count", requestFrame(std::string(ipc::selectors::helperVersion), {"MARKER-extra"})},
      {"wrong argument type", wrongTypeFrame()},
  };
}

TEST_F(DaemonTest, EachMalformedInputClosesOnlyItsOwnConnection) {
  const DaemonHarness& daemon = startDaemon();
  const auto bystander = daemon.client();
  std::size_t closed = 0;
  for (const BadInput& input : badInputs()) {
    SCOPED_TRACE(input.name);
    const UniqueFd connection = daemon.connectRaw();
    sendAll(connection.get(), input.bytes);  // the daemon may close before it has all of it
    if (input.thenCloseWriting) ::shutdown(connection.get(), SHUT_WR);
    const Closure closure = waitForClose(connection.get(), 5s);
    EXPECT_TRUE(closure.closed);
    EXPECT_EQ(closure.received, "");
    EXPECT_EQ(bystander->helperVersion(), "1.3");
    EXPECT_TRUE(eventually([&] { return daemon.logLines(kClosed) == closed + 1; })) << daemon.log();
    ++closed;
  }
  EXPECT_EQ(daemon.logLines(kClosed), closed);
  EXPECT_EQ(daemon.log().find(kMarker), std::string::npos) << daemon.log();
}

TEST_F(DaemonTest, AStalledFrameIsClosedAfterTenSecondsWhileAnIdleConnectionStays) {
  const DaemonHarness& daemon = startDaemon();
  const auto idle = daemon.client();
  const UniqueFd stalled = daemon.connectRaw();
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(sendAll(stalled.get(), lengthHeader(64) + "MARKER-stalled"));
  const Closure closure = waitForClose(stalled.get(), 15s);
  const auto elapsed = std::chrono::steady_clock::now() - start;

  EXPECT_TRUE(closure.closed);
  EXPECT_EQ(closure.received, "");
  EXPECT_GE(elapsed, 10s);
  EXPECT_LT(elapsed, 12s);
  EXPECT_EQ(idle->helperVersion(), "1.3");
  EXPECT_TRUE(eventually([&] { return daemon.logLines(kClosed) == 1; })) << daemon.log();
  EXPECT_EQ(daemon.log().find(kMarker), std::string::npos) << daemon.log();
}

}  // namespace
}  // namespace harborkeeper
