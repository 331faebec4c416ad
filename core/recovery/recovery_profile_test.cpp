#include "core/recovery/recovery_profile.h"

#include <gtest/gtest.h>

namespace harborkeeper {
namespace {

using json::Json;

// Every required key; of the others only nulls, which count as absent.
Json minimalStored() {
  return Json::parse(R"({
      "id": "e621e1f8-c36c-495a-93fc-0c247a3e6e5f", "macName": "Studio", "localHostname": "studio.local",
      "sshPort": 22.0, "hostKeyFingerprint": "", "pairedAt": null, "wakeOnLANPort": null, "lastKnownLocalIPs": ["192.168.1.20"],
      "fileVaultUsername": "ana", "credentialPolicy": "askEveryTime", "notes": "", "vpnHostname": "",
      "normalSSHUsername": ""})");
}

// Every key, none at its default.
Json fullStored() {
  return Json::parse(R"({
      "id": "E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "macName": "Studio", "localHostname": "studio.local",
      "sshPort": 2222, "hostKeyFingerprint": "SHA256:abc", "hostKeyTrustPolicy": "allowUnverifiedLocalNetwork",
      "lastKnownLocalIPs": ["10.0.0.2", "fe80::1"], "lastSuccessfulReachability": "2026-11-15T16:20:00Z",
      "fileVaultUsername": "ana", "credentialPolicy": "oneClick", "listenerApprovalPolicy": "requirePhoneApproval",
      "notes": "closet \"rack\"", "vpnHostname": "studio.vpn", "normalSSHUsername": "admin",
      "credentialItemIdentifier": "item-1", "pairedAt": "2026-01-02T00:00:00Z",
      "lastPairingSessionIdentifier": "session-9", "wakeOnLANMACAddress": "00:11:22:33:44:55",
      "wakeOnLANBroadcastAddress": "192.168.1.255", "wakeOnLANPort": 7})");
}

TEST(RecoveryProfileCodingTest, AbsentOptionalKeysTakeTheirDefaults) {
  const RecoveryProfile profile = decodeRecoveryProfile(minimalStored());
  EXPECT_EQ(profile.id, "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_EQ(profile.hostKeyTrustPolicy, RecoveryHostKeyTrustPolicy::requireVerifiedHostKey);
  EXPECT_EQ(profile.listenerApprovalPolicy, ListenerApprovalPolicy::allowTrustedListener);
  EXPECT_EQ(profile.wakeOnLANPort, 9);
  EXPECT_TRUE(profile.wakeOnLANMACAddress.empty() && profile.wakeOnLANBroadcastAddress.empty());
  EXPECT_FALSE(profile.pairedAt || profile.credentialItemIdentifier || profile.lastSuccessfulReachability);
}

TEST(RecoveryProfileCodingTest, FullProfileRoundTrips) {
  const Json stored = fullStored();
  ASSERT_EQ(stored.size(), recoveryProfileCodingKeys().size());
  const RecoveryProfile profile = decodeRecoveryProfile(stored);
  EXPECT_EQ(encodeRecoveryProfile(profile), stored);

  RecoveryProfile bare = profile;
  bare.pairedAt.reset();
  bare.credentialItemIdentifier.reset();
  EXPECT_FALSE(encodeRecoveryProfile(bare).contains("pairedAt"));
  EXPECT_EQ(decodeRecoveryProfile(json::parse(json::serialize(encodeRecoveryProfile(bare)))), bare);
}

TEST(RecoveryProfileCodingTest, BadStoredValuesNameTheKeyNotTheValue) {
  const std::nullopt_t missing = std::nullopt;
  // {key, value stored under it (none: the key is removed), expected message}
  const std::tuple<std::string, std::optional<Json>, std::string> cases[] = {
      {"sshPort", missing, "\"sshPort\" is missing."},
      {"sshPort", 22.5, "\"sshPort\" must be an integer."},
      {"sshPort", Json(18446744073709551615ULL), "\"sshPort\" must be an integer."},
      {"wakeOnLANPort", "9", "\"wakeOnLANPort\" must be an integer."},
      {"macName", missing, "\"macName\" is missing."},
      {"macName", Json(nullptr), "\"macName\" must be a string."},
      {"id", "not-a-uuid", "\"id\" is not a UUID."},
      {"credentialPolicy", "AskEveryTime", "\"credentialPolicy\" has an unknown value."},
      {"listenerApprovalPolicy", 1, "\"listenerApprovalPolicy\" must be a string."},
      {"lastKnownLocalIPs", missing, "\"lastKnownLocalIPs\" is missing."},
      {"lastKnownLocalIPs", "10.0.0.1", "\"lastKnownLocalIPs\" must be an array of strings."},
      {"lastKnownLocalIPs", Json::array({"10.0.0.1", 7}), "\"lastKnownLocalIPs\" item 2 must be a string."},
      {"pairedAt", "2026-13-01T00:00:00Z", "\"pairedAt\" is not an ISO 8601 date."},
      {"lastSuccessfulReachability", 1700000000, "\"lastSuccessfulReachability\" must be a string."},
  };
  for (const auto& [key, value, message] : cases) {
    SCOPED_TRACE(message);
    Json stored = minimalStored();
    if (value) {
      stored[key] = *value;
    } else {
      stored.erase(key);
    }
    try {
      decodeRecoveryProfile(stored);
      ADD_FAILURE() << "decoded";
    } catch (const RecoveryProfileDecodeError& error) {
      EXPECT_EQ(std::pair(std::string(error.what()), error.key()), std::pair(message, key));
    }
  }
}

TEST(RecoveryProfileTest, DerivedValues) {
  std::vector<std::string> ten;
  for (int i = 1; i <= 10; ++i) ten.push_back("10.0.0." + std::to_string(i));
  std::vector<std::string> localAndFirstEight = {"m.local"};
  localAndFirstEight.insert(localAndFirstEight.end(), ten.begin(), ten.begin() + 8);
  struct Case {
    std::string name;
    std::string vpn;
    std::string local;
    std::vector<std::string> ips;
    std::vector<std::string> candidates;
    std::string connectionHost;
    std::string ipSummary;
  };
  const Case cases[] = {
      {"ten addresses: first eight", "", "m.local", ten, localAndFirstEight, "m.local",
       "10.0.0.1, 10.0.0.2, 10.0.0.3, 10.0.0.4, 10.0.0.5, 10.0.0.6, 10.0.0.7, 10.0.0.8, 10.0.0.9, 10.0.0.10"},
      {"vpn is local",
       " m.local\n",
       "m.local",
       {"m.local", "1.2.3.4"},
       {"m.local", "1.2.3.4"},
       "m.local",
       "m.local, 1.2.3.4"},
      {"cleaned",
       "v.example",
       "\u00a0m.local ",
       {" ", "1.2.3.4", "1.2.3.4 "},
       {"v.example", "m.local", "1.2.3.4"},
       "v.example",
       "1.2.3.4"},
      {"nothing usable: local as stored", "", "  ", {"\t"}, {}, "  ", "None"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RecoveryProfile profile;
    profile.vpnHostname = c.vpn;
    profile.localHostname = c.local;
    profile.lastKnownLocalIPs = c.ips;
    EXPECT_EQ(profile.recoveryHostCandidates(), c.candidates);
    EXPECT_EQ(profile.connectionHost(), c.connectionHost);
    EXPECT_EQ(profile.recentLocalIPSummary(), c.ipSummary);
  }
}

TEST(RecoveryProfileTest, UserNamesAndVpnSummary) {
  // {normalSSHUsername, fileVaultUsername, vpnHostname, normalUsername, vpnHostnameSummary}
  const std::tuple<std::string, std::string, std::string, std::string, std::string> cases[] = {
      {"   ", " ana\n", "", "ana", "Not set"},
      {" admin ", "ana", "\u3000vpn.example\u3000", "admin", "vpn.example"},
  };
  for (const auto& [normal, fileVault, vpn, expectedNormal, expectedVpn] : cases) {
    SCOPED_TRACE(expectedVpn);
    RecoveryProfile profile;
    profile.normalSSHUsername = normal;
    profile.fileVaultUsername = fileVault;
    profile.vpnHostname = vpn;
    EXPECT_EQ(profile.normalUsername(), expectedNormal);
    EXPECT_EQ(profile.vpnHostnameSummary(), expectedVpn);
  }
}

}  // namespace
}  // namespace harborkeeper
