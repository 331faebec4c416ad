#include "core/protection/protection_status.h"

#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/foundation/plist.h"

namespace harborkeeper {
namespace {

using namespace std::chrono;
using Mode = HelperProtectionMode;

const Date kBoot = Date(sys_days(2026y / 11 / 15) + 8h);
// As the helper writes its status file, with the keys other tools read.
const std::string kDocument =
    "<plist version=\"1.0\"><dict><key>mode</key><string>persistent</string><key>succeeded</key><true/>"
    "<key>armedAt</key><date>2026-11-15T07:59:59Z</date><key>message</key><string>m</string></dict></plist>";

// Round trips are fuzz_protection_status', replayed over its corpus.
TEST(HelperProtectionStatusTest, Coding) {
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
