#include "core/provisioning/local_unlocker_profile_exporter.h"

#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

namespace harborkeeper {
namespace {

using json::Json;
using Exporter = LocalUnlockerProfileExporter;

RecoveryProfile profile(std::string id, std::string name, std::string host) {
  RecoveryProfile p;
  p.id = std::move(id);
  p.macName = std::move(name);
  p.localHostname = std::move(host);
  p.fileVaultUsername = "ana";
  return p;
}

// One with Wake-on-LAN and one-click recovery, one with repeated and too many
// addresses, one with only blanks and defaults (a blank hardware address
// writes no Wake-on-LAN key at all).
std::vector<RecoveryProfile> goldenProfiles() {
  RecoveryProfile studio = profile("E621E1F8-C36C-495A-93FC-0C247A3E6E5F", " Studio\n", "studio.local");
  studio.sshPort = 2222;
  studio.hostKeyFingerprint = "SHA256:abc/def+ghi ";
  studio.hostKeyTrustPolicy = RecoveryHostKeyTrustPolicy::allowUnverifiedLocalNetwork;
  studio.lastKnownLocalIPs = {"192.168.1.20", "fe80::1%en0"};
  studio.credentialPolicy = RecoveryCredentialPolicy::oneClick;
  studio.listenerApprovalPolicy = ListenerApprovalPolicy::requirePhoneApproval;
  studio.notes = "closet";
  studio.vpnHostname = "studio.vpn.example";
  studio.normalSSHUsername = " admin";
  studio.wakeOnLANMACAddress = " 00:11:22:33:44:55 ";
  studio.wakeOnLANBroadcastAddress = " 192.168.1.255\n";
  studio.wakeOnLANPort = 7;

  RecoveryProfile rack = profile("0f8fad5b-d9cb-469f-a165-70867728950e", "Rack", "rack.example");
  rack.lastKnownLocalIPs = {
      " 192.168.1.20 ", "192.168.1.20", "FE80::1%en0", "fe80::1%EN0",    "8.8.8.8",     "",
      "10.0.0.2",       "10.0.0.3",     "172.16.0.4",  "172.31.255.255", "169.254.1.1", "127.0.0.1"};
  rack.wakeOnLANBroadcastAddress = "192.168.1.255";

  RecoveryProfile mini = profile("7C9E6679-7425-40DE-944B-E07FC1F90AE7", "Mini", "Mini.local");
  mini.lastKnownLocalIPs = {"mini.local"};
  mini.credentialPolicy = RecoveryCredentialPolicy::requireDeviceAuthentication;
  mini.vpnHostname = "   ";
  mini.wakeOnLANMACAddress = " \n";
  mini.wakeOnLANBroadcastAddress = "10.0.0.255";
  return {studio, rack, mini};
}

std::string golden(const std::string& name) {
  std::ifstream in(std::string(HARBORKEEPER_PROVISIONING_TESTDATA) + "/" + name);
  EXPECT_TRUE(in) << name;
  return {std::istreambuf_iterator<char>(in), {}};
}

TEST(LocalUnlockerProfileExporterTest, ExportsMatchTheAgentsFormats) {
  const std::vector<RecoveryProfile> profiles = goldenProfiles();
  const std::optional<std::string> url = " https://approvals.example/v1/ ";
  const std::optional<std::string> listener = "listener-7\n";
  const std::string docker = Exporter::dockerProfilesJSON(profiles, url, listener);
  const std::string windows = Exporter::windowsProfilesJSON(profiles, url, listener);
  EXPECT_EQ(docker + "\n", golden("docker_profiles.json"));
  EXPECT_EQ(windows + "\n", golden("windows_profiles.json"));
  EXPECT_FALSE(Exporter::containsSensitiveProfileExportField(docker + windows));
  EXPECT_EQ(Exporter::dockerProfilesJSON({}, url, listener), "[]");
}

TEST(LocalUnlockerProfileExporterTest, BlankValuesWriteNoKey) {
  RecoveryProfile p = profile("E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "A", "a.local");
  p.wakeOnLANMACAddress = "aa:bb";
  p.wakeOnLANBroadcastAddress = " ";
  p.wakeOnLANPort = 0;
  for (const std::string& exported :
       {Exporter::dockerProfilesJSON({p}, "   ", " \n"), Exporter::windowsProfilesJSON({p}, "", "\t")}) {
    const Json object = Json::parse(exported)[0];
    EXPECT_EQ(object["wakeOnLANPort"], 0);
    for (const char* key :
         {"wakeOnLANBroadcastAddress", "approvalWorkerURL", "approvalWorkerUrl", "listenerId"}) {
      EXPECT_FALSE(object.contains(key)) << key;
    }
  }
}

TEST(LocalUnlockerProfileExporterTest, LocalRecoveryCandidates) {
  for (const char* host : {"mac-mini.local", " Mac-Mini.LOCAL\n", "[fe80::1%en0]", "[::1]", "fd12:3456::1",
                           "FC00::1", "172.31.255.255", "172.16.0.1", "127.0.0.1", "169.254.7.1",
                           "10.0.0.1%eth0", "192.168.0.1", "10..0.0.1"}) {
    EXPECT_TRUE(Exporter::isLocalRecoveryCandidate(host)) << host;
  }
  for (const char* host :
       {"172.32.0.1", "172.15.0.1", "192.169.0.1", "169.255.0.1", "8.8.8.8", "10.0.0.256", "10.0.0",
        "10.0.0.1.5", "+10.0.0.1", "mac-mini.example", "fdic.example", "fe80", "2001:db8::1", "", " [] "}) {
    EXPECT_FALSE(Exporter::isLocalRecoveryCandidate(host)) << host;
  }
}

// The first listed word is reported, whatever its letter case.
TEST(LocalUnlockerProfileExporterTest, BlocklistWordsInAnyLetterCase) {
  const std::pair<const char*, std::optional<std::string_view>> cases[] = {
      {R"({"ListenerSecretFile": 1})", "listenersecretfile"},
      {"my SSHPRIVATEKEY passwordless", "password"},
      {"credentialPolicy listenerSecret pass word", std::nullopt},
  };
  for (const auto& [text, word] : cases) {
    SCOPED_TRACE(text);
    EXPECT_EQ(Exporter::sensitiveProfileExportField(text), word);
    EXPECT_EQ(Exporter::containsSensitiveProfileExportField(text), word.has_value());
  }
}

}  // namespace
}  // namespace harborkeeper
