#include "core/protection/protection_status.h"

#include <chrono>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/foundation/plist.h"

namespace harborkeeper {
namespace {

using namespace std::chrono;
using namespace std::chrono_literals;
using Kind = ProtectionState::Kind;

constexpr std::string_view kCorrupted = "The data couldn’t be read because it isn’t in the correct format.";
constexpr std::string_view kMissing = "The data couldn’t be read because it is missing.";

const Date kBoot = Date(sys_days(2026y / 11 / 15) + 8h);

std::string asText(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

std::string xmlDocument(std::string_view dictionaryBody) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
         "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
         "<plist version=\"1.0\">\n<dict>\n" +
         std::string(dictionaryBody) + "</dict>\n</plist>\n";
}

TEST(HelperProtectionModeTest, RawValues) {
  EXPECT_EQ(rawValue(HelperProtectionMode::nextRestart), "nextRestart");
  EXPECT_EQ(rawValue(HelperProtectionMode::persistent), "persistent");
  EXPECT_EQ(helperProtectionModeFromRaw("nextRestart"), HelperProtectionMode::nextRestart);
  EXPECT_EQ(helperProtectionModeFromRaw("persistent"), HelperProtectionMode::persistent);
  for (const std::string_view raw : {"Persistent", "", "next restart", "persistent "}) {
    EXPECT_EQ(helperProtectionModeFromRaw(raw), std::nullopt) << raw;
  }
}

TEST(ProtectionStateTest, Headlines) {
  const std::vector<std::pair<ProtectionState, std::string_view>> cases = {
      {ProtectionState::needsPasswordUpdate("m"), "Needs password update"},
      {ProtectionState::failed("m"), "Protection failed"},
      {ProtectionState::of(Kind::protectedForFutureRestarts), "Protected for future restarts"},
      {ProtectionState::of(Kind::protectedForNextRestart), "Protected for the next restart"},
      {ProtectionState::of(Kind::needsSetup), "Needs setup"},
      {ProtectionState::of(Kind::fileVaultOff), "FileVault is off"},
      {ProtectionState::of(Kind::unsupported), "This Mac is not supported"},
      {ProtectionState::of(Kind::expired), "Protection expired"},
      {ProtectionState::of(Kind::unknown), "Protection unknown"},
  };
  for (const auto& [state, headline] : cases) {
    EXPECT_EQ(state.headline(), headline);
  }
}

TEST(ProtectionStateTest, FromStatusAndBootDate) {
  const struct {
    HelperProtectionMode mode;
    bool succeeded;
    Date armedAt;
    ProtectionState expected;
  } cases[] = {
      // A failure shows its message whenever it happened.
      {HelperProtectionMode::persistent, false, kBoot + 1h, ProtectionState::needsPasswordUpdate("why")},
      {HelperProtectionMode::persistent, false, kBoot - 1h, ProtectionState::needsPasswordUpdate("why")},
      {HelperProtectionMode::nextRestart, false, kBoot + 1h, ProtectionState::failed("why")},
      {HelperProtectionMode::nextRestart, false, kBoot, ProtectionState::failed("why")},
      {HelperProtectionMode::persistent, true, kBoot + 1h,
       ProtectionState::of(Kind::protectedForFutureRestarts)},
      {HelperProtectionMode::nextRestart, true, kBoot + 1us,
       ProtectionState::of(Kind::protectedForNextRestart)},
      {HelperProtectionMode::persistent, true, kBoot, ProtectionState::of(Kind::expired)},
      {HelperProtectionMode::nextRestart, true, kBoot, ProtectionState::of(Kind::expired)},
      {HelperProtectionMode::nextRestart, true, kBoot - 1us, ProtectionState::of(Kind::expired)},
      {HelperProtectionMode::persistent, true, kBoot - 24h, ProtectionState::of(Kind::expired)},
  };
  for (const auto& testCase : cases) {
    const HelperProtectionStatus status{testCase.mode, testCase.succeeded, testCase.armedAt, "why"};
    EXPECT_EQ(status.protectionState(kBoot), testCase.expected)
        << rawValue(testCase.mode) << " succeeded=" << testCase.succeeded
        << " armedAt-boot=" << duration_cast<microseconds>(testCase.armedAt - kBoot).count() << "us";
  }
}

TEST(HelperProtectionStatusTest, WritesXmlDictionary) {
  const HelperProtectionStatus status{HelperProtectionMode::persistent, true,
                                      Date(sys_days(2026y / 11 / 15) + 16h + 20min + 5s + 250ms),
                                      "Protected & armed <now>"};
  EXPECT_EQ(asText(status.encodeXml()),
            xmlDocument("\t<key>armedAt</key>\n\t<date>2026-11-15T16:20:05Z</date>\n"
                        "\t<key>message</key>\n\t<string>Protected &amp; armed &lt;now&gt;</string>\n"
                        "\t<key>mode</key>\n\t<string>persistent</string>\n"
                        "\t<key>succeeded</key>\n\t<true/>\n"));
}

TEST(HelperProtectionStatusTest, RoundTrips) {
  const HelperProtectionStatus wholeSeconds{HelperProtectionMode::nextRestart, false,
                                            Date(sys_days(1999y / 12 / 31) + 23h + 59min + 59s),
                                            "fdesetup: Ünïcode failure"};
  EXPECT_EQ(HelperProtectionStatus::decode(asText(wholeSeconds.encodeXml())), wholeSeconds);

  // Binary files keep microseconds.
  const HelperProtectionStatus precise{HelperProtectionMode::persistent, true, kBoot + 123456us, ""};
  const plist::Dictionary dictionary{{"mode", "persistent"},
                                     {"succeeded", true},
                                     {"armedAt", precise.armedAt},
                                     {"message", ""},
                                     {"extra", 1}};
  EXPECT_EQ(HelperProtectionStatus::decode(asText(plist::encode(dictionary, plist::Format::binary))),
            precise);
}

TEST(HelperProtectionStatusTest, ReadsHandWrittenXml) {
  const std::string document = xmlDocument(
      "  <key>mode</key>\n  <string>nextRestart</string>\n  <key>succeeded</key>\n  <false/>\n"
      "  <key>armedAt</key>\n  <date>2026-11-15T07:59:59Z</date>\n"
      "  <key>message</key>\n  <string>Authenticated restart failed.</string>\n");
  const HelperProtectionStatus expected{HelperProtectionMode::nextRestart, false, kBoot - 1s,
                                        "Authenticated restart failed."};
  EXPECT_EQ(HelperProtectionStatus::decode(document), expected);
}

TEST(HelperProtectionStatusTest, DecodeErrors) {
  const std::string mode = "<key>mode</key><string>persistent</string>";
  const std::string succeeded = "<key>succeeded</key><true/>";
  const std::string armedAt = "<key>armedAt</key><date>2026-11-15T07:59:59Z</date>";
  const std::string message = "<key>message</key><string>m</string>";
  const std::vector<std::tuple<std::string, std::string, std::string_view>> cases = {
      {"no mode", xmlDocument(succeeded + armedAt + message), kMissing},
      {"no succeeded", xmlDocument(mode + armedAt + message), kMissing},
      {"no armedAt", xmlDocument(mode + succeeded + message), kMissing},
      {"no message", xmlDocument(mode + succeeded + armedAt), kMissing},
      {"unknown mode", xmlDocument("<key>mode</key><string>weekly</string>" + succeeded + armedAt + message),
       kCorrupted},
      {"mode as integer", xmlDocument("<key>mode</key><integer>1</integer>" + succeeded + armedAt + message),
       kCorrupted},
      {"succeeded as text",
       xmlDocument(mode + "<key>succeeded</key><string>true</string>" + armedAt + message), kCorrupted},
      {"armedAt as text",
       xmlDocument(mode + succeeded + "<key>armedAt</key><string>2026-11-15T07:59:59Z</string>" + message),
       kCorrupted},
      {"message as data", xmlDocument(mode + succeeded + armedAt + "<key>message</key><data></data>"),
       kCorrupted},
      {"array root", asText(plist::encode(plist::Array{}, plist::Format::xml)), kCorrupted},
      {"not a plist", "mode=persistent", kCorrupted},
  };
  for (const auto& [name, bytes, text] : cases) {
    const std::string& document = bytes;
    EXPECT_THAT([&] { HelperProtectionStatus::decode(document); },
                testing::ThrowsMessage<plist::DecodeError>(testing::StrEq(std::string(text))))
        << name;
  }
}

}  // namespace
}  // namespace harborkeeper
