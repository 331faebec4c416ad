#include "core/recovery/harborkeeper_discovery.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/recovery/dns_service_discovery.h"

namespace harborkeeper {
namespace {

using Discovery = HarborkeeperDiscovery;
using Candidate = RecoveryDiscoveryCandidate;

Candidate candidate(std::string serviceName, std::string hostname, TXTRecord txt = {}) {
  return Candidate{.id = {},
                   .serviceName = std::move(serviceName),
                   .hostname = std::move(hostname),
                   .port = 22,
                   .txtRecord = std::move(txt),
                   .lastKnownLocalIPs = {}};
}

TEST(HarborkeeperDiscoveryTest, AdvertisedRecordCarriesOnlyItsFixedKeys) {
  const TXTRecord base = {{"app", "Harborkeeper"},
                          {"bundle", "com.lumaq.Harborkeeper"},
                          {"hostname", "mini.local"},
                          {"version", "1"}};
  TXTRecord pairing = base;
  pairing.insert({{"pairing", "1"}, {"session", "AB-12"}});
  const struct {
    std::optional<std::string> session;
    TXTRecord expected;
  } cases[] = {{std::nullopt, base}, {" \n\t", base}, {"", base}, {" AB-12\n", pairing}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.session.value_or("none"));
    EXPECT_EQ(
        Discovery::advertisedTXTRecord("Harborkeeper", "com.lumaq.Harborkeeper", "mini.local", c.session),
        c.expected);
  }
}

TEST(HarborkeeperDiscoveryTest, HostNamesBecomeLocalNames) {
  const std::pair<std::string, std::string> cases[] = {
      {"Studio.LOCAL.", "Studio.LOCAL"},
      {"studio", "studio.local"},
      {"", "localhost"},
      {" \n", "localhost"},
      {".", "localhost"},
      {" mini.local.\n", "mini.local"},
      {"mini.example", "mini.example.local"},
      {"mini.localhost", "mini.localhost.local"},
  };
  for (const auto& [name, expected] : cases) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Discovery::bonjourHostname(name), expected);
  }
  // The configured local name first, then the process's, then "localhost".
  EXPECT_EQ(Discovery::localBonjourHostname("Studio", "box"), "Studio.local");
  EXPECT_EQ(Discovery::localBonjourHostname(" \n", "box."), "box.local");
  EXPECT_EQ(Discovery::localBonjourHostname("", "  "), "localhost");
}

TEST(HarborkeeperDiscoveryTest, DerivedValuesOfACandidate) {
  const struct {
    Candidate candidate;
    std::string displayName;
    std::string normalizedHostname;
    bool pairingOpen;
    std::optional<std::string> session;
  } cases[] = {
      {candidate(" Studio\n", "studio.local."), "Studio", "studio.local", false, std::nullopt},
      {candidate("Harborkeeper (2)", "mini.local."), "mini.local", "mini.local", false, std::nullopt},
      {candidate(" ", "mini.local.."), "mini.local.", "mini.local.", false, std::nullopt},
      {candidate("Harborkeeper 2", "mini", {{"pairing", "1"}, {"session", "S"}}), "Harborkeeper 2", "mini",
       true, "S"},
      {candidate("Studio", "h", {{"pairing", "1"}, {"session", ""}}), "Studio", "h", false, std::nullopt},
      {candidate("Studio", "h", {{"pairing", "true"}, {"session", "S"}}), "Studio", "h", false, "S"},
      {candidate("Studio", "h", {{"pairing", "1"}}), "Studio", "h", false, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.candidate.serviceName + " @ " + c.candidate.hostname);
    EXPECT_EQ(c.candidate.displayName(), c.displayName);
    EXPECT_EQ(c.candidate.normalizedHostname(), c.normalizedHostname);
    EXPECT_EQ(c.candidate.isPairingWindowOpen(), c.pairingOpen);
    EXPECT_EQ(c.candidate.pairingSessionIdentifier(), c.session);
  }
}

TEST(HarborkeeperDiscoveryTest, WhichCandidatesAreShown) {
  for (const auto& [name, generic] : std::vector<std::pair<std::string, bool>>{{"Harborkeeper", true},
                                                                               {"Harborkeeper (2)", true},
                                                                               {"Harborkeeper 2", false},
                                                                               {"harborkeeper", false},
                                                                               {"Harborkeeper(2)", false},
                                                                               {" Harborkeeper", false}}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Discovery::isGenericServiceName(name), generic);
  }
  const struct {
    const char* why;
    Candidate candidate;
    bool shown;
  } cases[] = {
      {"unresolved generic", candidate("Harborkeeper", "harborkeeper."), false},
      {"unresolved generic, host in capitals",
       candidate("Harborkeeper (2)", "HARBORKEEPER (2)", {{"app", "x"}}), false},
      {"generic, but the record names a host", candidate("Harborkeeper", "Harborkeeper", {{"hostname", "m"}}),
       true},
      {"generic name, real host", candidate("Harborkeeper", "studio.local."), true},
      {"own name as its host", candidate("Studio", "studio"), true},
      {"this machine", candidate("Studio", "Mini.local."), false},
      {"this machine, bare name", candidate("Studio", "mini"), false},
      {"another machine", candidate("Studio", "mini2.local."), true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.why);
    EXPECT_EQ(Discovery::shouldDisplayCandidate(c.candidate, "mini.local"), c.shown);
  }
  EXPECT_TRUE(Discovery::isLocalHostname(" MINI.local.\n", "mini"));
}

TEST(HarborkeeperDiscoveryTest, CredentialDisclosureIsFlagged) {
  const TXTRecord clean = Discovery::advertisedTXTRecord(
      "Harborkeeper", "com.lumaq.Harborkeeper", "mini.local", "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  const auto with = [&](std::string key, std::string value) {
    TXTRecord txt = clean;
    txt[std::move(key)] = std::move(value);
    return candidate("Studio", "mini.local.", txt);
  };
  const struct {
    const char* why;
    Candidate candidate;
    bool flagged;
  } cases[] = {
      {"advertised record", candidate("Harborkeeper", "mini.local.", clean), false},
      {"key unlock-token", with("unlock-token", ""), true},
      {"spaced key", with("Recovery Key", "x"), true},
      {"word split by punctuation", with("note", "pass_word"), true},
      {"split across key and value", with("recovery", "key"), true},
      {"zero-width space inside", with("note", "un\u200block"), true},
      {"credential in capitals", with("note", "CREDENTIAL"), true},
      {"secret in the service name", candidate("Secret Studio", "mini.local."), true},
      {"password in the host name", candidate("Studio", "password.local."), true},
      {"a letter in between", with("note", "unl\u00f6ck"), false},
      {"near miss", with("passwd", "recovery"), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.why);
    EXPECT_EQ(Discovery::containsCredentialDisclosure(c.candidate), c.flagged);
  }
}

std::vector<std::uint8_t> bytes(std::string_view text) { return {text.begin(), text.end()}; }

TEST(TXTRecordCodingTest, DecodesWhatTheNetworkSendsDefensively) {
  const struct {
    const char* why;
    std::string wire;
    TXTRecord expected;
  } cases[] = {
      {"plain",
       "\x05"
       "app=H"
       "\x03"
       "v=1",
       {{"app", "H"}, {"v", "1"}}},
      {"empty", "", {}},
      {"a lone zero byte", std::string(1, '\0'), {}},
      {"no equals sign",
       "\x04"
       "flag",
       {{"flag", ""}}},
      {"empty key skipped",
       "\x02"
       "=v"
       "\x03"
       "a=b",
       {{"a", "b"}}},
      {"first duplicate wins",
       "\x03"
       "a=1"
       "\x03"
       "a=2",
       {{"a", "1"}}},
      {"value holds equals",
       "\x05"
       "a=b=c",
       {{"a", "b=c"}}},
      {"length past the end",
       "\x03"
       "a=1"
       "\x09"
       "b=2",
       {{"a", "1"}}},
      {"invalid UTF-8 repaired",
       "\x04"
       "k=\xff\xfe",
       {{"k", "\uFFFD\uFFFD"}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.why);
    EXPECT_EQ(decodeTXTRecord(bytes(c.wire)), c.expected);
  }
  const TXTRecord advertised = Discovery::advertisedTXTRecord("Harborkeeper", "b", "h.local", "S");
  EXPECT_EQ(decodeTXTRecord(encodeTXTRecord(advertised)), advertised);
  for (const TXTRecord& refused :
       {TXTRecord{{"a=b", "c"}}, TXTRecord{{"", "c"}}, TXTRecord{{"k", std::string(254, 'v')}}}) {
    EXPECT_THROW(encodeTXTRecord(refused), ServiceDiscoveryError);
  }
  EXPECT_NO_THROW(encodeTXTRecord({{"k", std::string(253, 'v')}}));
}

}  // namespace
}  // namespace harborkeeper
