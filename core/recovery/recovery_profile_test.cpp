#include "core/recovery/recovery_profile.h"

#include <gtest/gtest.h>

#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

using json::Json;
using testing_support::outcome;
using Strings = std::vector<std::string>;

// Every required key; of the others only nulls, which count as absent.
Json minimalStored() {
  return Json::parse(R"({
      "id": "e621e1f8-c36c-495a-93fc-0c247a3e6e5f", "macName": "Studio", "localHostname": "studio.local",
      "sshPort": 22.0, "hostKeyFingerprint": "", "pairedAt": null, "wakeOnLANPort": null, "lastKnownLocalIPs": ["192.168.1.20"],
      "fileVaultUsername": "ana", "credentialPolicy": "askEveryTime", "notes": "", "vpnHostname": "",
      "normalSSHUsername": ""})");
}

TEST(RecoveryProfileCodingTest, AbsentKeysTakeDefaultsAndAFullProfileRoundTrips) {
  const RecoveryProfile minimal = decodeRecoveryProfile(minimalStored());
  EXPECT_EQ(minimal.id, "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_EQ(minimal.hostKeyTrustPolicy, RecoveryHostKeyTrustPolicy::requireVerifiedHostKey);
  EXPECT_EQ(minimal.wakeOnLANPort, 9);
  EXPECT_FALSE(minimal.pairedAt || minimal.credentialItemIdentifier || minimal.lastSuccessfulReachability);

  // Every key, none at its default.
  const Json stored = Json::parse(R"({
      "id": "E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "macName": "Studio", "localHostname": "studio.local",
      "sshPort": 2222, "hostKeyFingerprint": "SHA256:abc", "hostKeyTrustPolicy": "allowUnverifiedLocalNetwork",
      "lastKnownLocalIPs": ["10.0.0.2", "fe80::1"], "lastSuccessfulReachability": "2026-11-15T16:20:00Z",
      "fileVaultUsername": "ana", "credentialPolicy": "oneClick", "listenerApprovalPolicy": "requirePhoneApproval",
      "notes": "closet \"rack\"", "vpnHostname": "studio.vpn", "normalSSHUsername": "admin",
      "credentialItemIdentifier": "item-1", "pairedAt": "2026-01-02T00:00:00Z",
      "lastPairingSessionIdentifier": "session-9", "wakeOnLANMACAddress": "00:11:22:33:44:55",
      "wakeOnLANBroadcastAddress": "192.168.1.255", "wakeOnLANPort": 7})");
  ASSERT_EQ(stored.size(), recoveryProfileCodingKeys().size());
  RecoveryProfile profile = decodeRecoveryProfile(stored);
  EXPECT_EQ(encodeRecoveryProfile(profile), stored);
  profile.pairedAt.reset();
  EXPECT_FALSE(encodeRecoveryProfile(profile).contains("pairedAt"));
  EXPECT_EQ(decodeRecoveryProfile(json::parse(json::serialize(encodeRecoveryProfile(profile)))), profile);
}

TEST(RecoveryProfileCodingTest, BadStoredValuesNameTheKeyNotTheValue) {
  // {key, value stored under it (none: the key is removed), expected message}
  const std::tuple<std::string, std::optional<Json>, std::string> cases[] = {
      {"sshPort", std::nullopt, "\"sshPort\" is missing."},
      {"sshPort", 22.5, "\"sshPort\" must be an integer."},
      {"wakeOnLANPort", "9", "\"wakeOnLANPort\" must be an integer."},
      {"macName", Json(nullptr), "\"macName\" must be a string."},
      {"id", "not-a-uuid", "\"id\" is not a UUID."},
      {"credentialPolicy", "AskEveryTime", "\"credentialPolicy\" has an unknown value."},
      {"lastKnownLocalIPs", "10.0.0.1", "\"lastKnownLocalIPs\" must be an array of strings."},
      {"lastKnownLocalIPs", Json::array({"10.0.0.1", 7}), "\"lastKnownLocalIPs\" item 2 must be a string."},
      {"pairedAt", "2026-13-01T00:00:00Z", "\"pairedAt\" is not an ISO 8601 date."},
  };
  for (const auto& [key, value, message] : cases) {
    SCOPED_TRACE(message);
    Json stored = minimalStored();
    stored.erase(key);
    if (value) stored[key] = *value;
    EXPECT_EQ(outcome<RecoveryProfileDecodeError>([&] { (void)decodeRecoveryProfile(stored); }), message);
  }
}

TEST(RecoveryProfileTest, HostsAndSummariesAreTrimmedAndDeduplicated) {
  Strings ten;
  for (int i = 1; i <= 10; ++i) ten.push_back("10.0." + std::to_string(i));
  struct Case {
    std::string vpn, local;
    Strings ips, candidates;
    std::string ipSummary, vpnSummary;
  };
  const Case cases[] = {
      {"", "", ten, Strings(ten.begin(), ten.begin() + 8),
       "10.0.1, 10.0.2, 10.0.3, 10.0.4, 10.0.5, 10.0.6, 10.0.7, 10.0.8, 10.0.9, 10.0.10", "Not set"},
      {" mac\n", "mac", {"mac", "10.1"}, {"mac", "10.1"}, "mac, 10.1", "mac"},
      {"\u3000vpn", "\u00a0mac ", {" ", "10.1", "10.1 "}, {"vpn", "mac", "10.1"}, "10.1", "vpn"},
      {"", "  ", {"\t"}, {}, "None", "Not set"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.ipSummary);
    RecoveryProfile profile;
    profile.vpnHostname = c.vpn;
    profile.localHostname = c.local;
    profile.lastKnownLocalIPs = c.ips;
    EXPECT_EQ(profile.recoveryHostCandidates(), c.candidates);
    EXPECT_EQ(profile.connectionHost(), c.candidates.empty() ? c.local : c.candidates.front());
    EXPECT_EQ(profile.recentLocalIPSummary(), c.ipSummary);
    EXPECT_EQ(profile.vpnHostnameSummary(), c.vpnSummary);
  }
  RecoveryProfile profile;
  profile.fileVaultUsername = " ana\n";
  profile.normalSSHUsername = "   ";
  EXPECT_EQ(profile.normalUsername(), "ana");
}

}  // namespace
}  // namespace harborkeeper
