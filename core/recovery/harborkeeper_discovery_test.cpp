#include "core/recovery/harborkeeper_discovery.h"

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "core/recovery/dns_service_discovery.h"

namespace harborkeeper {
namespace {

using Discovery = HarborkeeperDiscovery;
using Candidate = RecoveryDiscoveryCandidate;

Candidate candidate(std::string serviceName, std::string hostname, TXTRecord txt = {}) {
  return {{}, std::move(serviceName), std::move(hostname), 22, std::move(txt), {}};
}

TEST(HarborkeeperDiscoveryTest, AdvertisedRecordCarriesOnlyItsFixedKeys) {
  const TXTRecord base = {{"app", "A"}, {"bundle", "b"}, {"hostname", "mini.local"}, {"version", "1"}};
  TXTRecord pairing = base;
  pairing.insert({{"pairing", "1"}, {"session", "AB-12"}});
  const std::pair<std::optional<std::string>, TXTRecord> cases[] = {
      {std::nullopt, base}, {" \n\t", base}, {" AB-12\n", pairing}};
  for (const auto& [session, expected] : cases) {
    SCOPED_TRACE(session.value_or("none"));
    EXPECT_EQ(Discovery::advertisedTXTRecord("A", "b", "mini.local", session), expected);
  }
}

TEST(HarborkeeperDiscoveryTest, HostNamesBecomeLocalNames) {
  // The configured local name first, then the process's, then "localhost".
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"Studio.LOCAL.", "", "Studio.LOCAL"}, {".", "box", "localhost"},
      {" mini.local.\n", "", "mini.local"},  {"mini.localhost", "", "mini.localhost.local"},
      {" \n", "box.", "box.local"},          {"", "  ", "localhost"}};
  for (const auto& [configured, process, expected] : cases) {
    SCOPED_TRACE(::testing::Message() << configured << " / " << process);
    EXPECT_EQ(Discovery::localBonjourHostname(configured, process), expected);
  }
}

TEST(HarborkeeperDiscoveryTest, DerivedValuesOfACandidate) {
  const std::tuple<Candidate, std::string, bool, std::optional<std::string>> cases[] = {
      {candidate(" Studio\n", "studio.local."), "Studio", false, std::nullopt},
      {candidate(" ", "mini.local.."), "mini.local.", false, std::nullopt},
      {candidate("Harborkeeper 2", "mini", {{"pairing", "1"}, {"session", "S"}}), "Harborkeeper 2", true,
       "S"},
      {candidate("Studio", "h", {{"pairing", "1"}, {"session", ""}}), "Studio", false, std::nullopt},
      {candidate("Studio", "h", {{"pairing", "true"}, {"session", "S"}}), "Studio", false, "S"},
      {candidate("Studio", "h", {{"pairing", "1"}}), "Studio", false, std::nullopt},
  };
  for (const auto& [candidate, displayName, pairingOpen, session] : cases) {
    SCOPED_TRACE(candidate.serviceName + " @ " + candidate.hostname);
    EXPECT_EQ(candidate.displayName(), displayName);
    EXPECT_EQ(candidate.isPairingWindowOpen(), pairingOpen);
    EXPECT_EQ(candidate.pairingSessionIdentifier(), session);
  }
}

TEST(HarborkeeperDiscoveryTest, WhichCandidatesAreShown) {
  const std::pair<std::string, bool> names[] = {{"Harborkeeper", true},     {"Harborkeeper (2)", true},
                                                {"Harborkeeper 2", false},  {"harborkeeper", false},
                                                {"Harborkeeper(2)", false}, {" Harborkeeper", false}};
  for (const auto& [name, generic] : names) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Discovery::isGenericServiceName(name), generic);
  }
  const std::tuple<const char*, Candidate, bool> cases[] = {
      {"unresolved generic", candidate("Harborkeeper (2)", "HARBORKEEPER (2).", {{"app", "x"}}), false},
      {"generic, but the record names a host", candidate("Harborkeeper", "Harborkeeper", {{"hostname", "m"}}),
       true},
      {"own name as its host", candidate("Studio", "studio"), true},
      {"this machine", candidate("Studio", "mini"), false},
  };
  for (const auto& [why, candidate, shown] : cases) {
    SCOPED_TRACE(why);
    EXPECT_EQ(Discovery::shouldDisplayCandidate(candidate, "mini.local"), shown);
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
  const std::tuple<const char*, Candidate, bool> cases[] = {
      {"advertised record", candidate("Harborkeeper", "mini.local.", clean), false},
      {"word split by punctuation", with("note", "pass_word"), true},
      {"split across key and value", with("recovery", "key"), true},
      {"zero-width space inside", with("note", "un\u200block"), true},
      {"credential in capitals", with("note", "CREDENTIAL"), true},
      {"secret in the service name", candidate("Secret Studio", "mini.local."), true},
      {"password in the host name", candidate("Studio", "password.local."), true},
      {"a letter in between", with("note", "unl\u00f6ck"), false},
      {"near miss", with("passwd", "recovery"), false},
  };
  for (const auto& [why, candidate, flagged] : cases) {
    SCOPED_TRACE(why);
    EXPECT_EQ(Discovery::containsCredentialDisclosure(candidate), flagged);
  }
}

// Length-prefixed items as they travel, then `tail` as is.
std::vector<std::uint8_t> wire(std::initializer_list<std::string_view> items, std::string_view tail = {}) {
  std::string bytes;
  for (const std::string_view item : items) (bytes += static_cast<char>(item.size())) += item;
  bytes += tail;
  return {bytes.begin(), bytes.end()};
}

TEST(TXTRecordCodingTest, DecodesWhatTheNetworkSendsDefensively) {
  const std::tuple<const char*, std::vector<std::uint8_t>, TXTRecord> cases[] = {
      {"no equals sign", wire({"flag"}), {{"flag", ""}}},
      {"empty key skipped", wire({"=v", "a=b"}), {{"a", "b"}}},
      {"first duplicate wins", wire({"a=1", "a=2"}), {{"a", "1"}}},
      {"value holds equals", wire({"a=b=c"}), {{"a", "b=c"}}},
      {"length past the end", wire({"a=1"}, "\tb=2"), {{"a", "1"}}},
      {"invalid UTF-8 repaired", wire({"k=\xff\xfe"}), {{"k", "\uFFFD\uFFFD"}}},
  };
  for (const auto& [why, bytes, expected] : cases) {
    SCOPED_TRACE(why);
    EXPECT_EQ(decodeTXTRecord(bytes), expected);
  }
  for (const TXTRecord& refused :
       {TXTRecord{{"a=b", "c"}}, TXTRecord{{"", "c"}}, TXTRecord{{"k", std::string(254, 'v')}}}) {
    EXPECT_THROW(encodeTXTRecord(refused), ServiceDiscoveryError);
  }
  EXPECT_NO_THROW(encodeTXTRecord({{"k", std::string(253, 'v')}}));
}

}  // namespace
}  // namespace harborkeeper
