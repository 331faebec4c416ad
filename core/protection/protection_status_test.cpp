#include "core/protection/protection_status.h"

#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/foundation/plist.h"

namespace harborkeeper {
namespace {

using namespace std::chrono;
using Kind = ProtectionState::Kind;
using Mode = HelperProtectionMode;

const Date kBoot = Date(sys_days(2026y / 11 / 15) + 8h);
// As the helper writes its status file, with the keys other tools read.
const std::string kDocument =
    "<plist version=\"1.0\"><dict><key>mode</key><string>persistent</string><key>succeeded</key><true/>"
    "<key>armedAt</key><date>2026-11-15T07:59:59Z</date><key>message</key><string>m</string></dict></plist>";

TEST(ProtectionStateTest, FromStatusAndBootDate) {
  const std::pair<HelperProtectionStatus, ProtectionState> cases[] = {
      {{Mode::persistent, false, kBoot - 1h, "why"}, ProtectionState::needsPasswordUpdate("why")},
      {{Mode::nextRestart, false, kBoot + 1h, "why"}, ProtectionState::failed("why")},
      {{Mode::persistent, true, kBoot + 1us, ""}, ProtectionState::of(Kind::protectedForFutureRestarts)},
      {{Mode::nextRestart, true, kBoot + 1us, ""}, ProtectionState::of(Kind::protectedForNextRestart)},
      // A restart at the very moment of arming has used it up.
      {{Mode::persistent, true, kBoot, ""}, ProtectionState::of(Kind::expired)},
  };
  for (const auto& [status, expected] : cases) {
    SCOPED_TRACE(expected.headline());
    EXPECT_EQ(status.protectionState(kBoot), expected);
  }
}

TEST(ProtectionStateTest, Headlines) {
  // In the order of Kind.
  const std::string_view headlines[] = {
      "Needs password update",          "Protection failed",  "Protected for future restarts",
      "Protected for the next restart", "Needs setup",        "FileVault is off",
      "This Mac is not supported",      "Protection expired", "Protection unknown"};
  for (std::size_t k = 0; k < std::size(headlines); ++k) {
    EXPECT_EQ(ProtectionState::of(static_cast<Kind>(k)).headline(), headlines[k]);
  }
}

TEST(HelperProtectionStatusTest, Coding) {
  const HelperProtectionStatus status{Mode::nextRestart, false, kBoot - 1s, "Ünïcode & <failure>"};
  EXPECT_EQ(HelperProtectionStatus::decode(toString(status.encodeXml())), status);
  EXPECT_EQ(HelperProtectionStatus::decode(kDocument),
            (HelperProtectionStatus{Mode::persistent, true, kBoot - 1s, "m"}));

  // Each case edits one thing in kDocument: {from, to, error}.
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"<key>message</key>", "<key>note</key>", "The data couldn’t be read because it is missing."},
      {"persistent", "Persistent", "The data couldn’t be read because it isn’t in the correct format."},
      {"<true/>", "<real>1</real>", "The data couldn’t be read because it isn’t in the correct format."},
  };
  for (const auto& [from, to, error] : cases) {
    SCOPED_TRACE(to);
    std::string document = kDocument;
    document.replace(document.find(from), from.size(), to);
    EXPECT_THAT([&] { HelperProtectionStatus::decode(document); },
                testing::ThrowsMessage<plist::DecodeError>(testing::StrEq(error)));
  }
}

}  // namespace
}  // namespace harborkeeper
