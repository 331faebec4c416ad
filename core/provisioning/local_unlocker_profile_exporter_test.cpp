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
// addresses, one with only blanks and defaults.
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
  studio.wakeOnLANBroadcastAddress = "192.168.1.255";
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

TEST(LocalUnlockerProfileExporterTest, BlankRouteArgumentsWriteNoKey) {
  const std::vector<RecoveryProfile> profiles{
      profile("E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "A", "a.local")};
  for (const auto& [url, listener] :
       std::vector<std::pair<std::optional<std::string>, std::optional<std::string>>>{
           {"   ", std::nullopt}, {std::nullopt, " \n"}, {"", ""}}) {
    const Json docker = Json::parse(Exporter::dockerProfilesJSON(profiles, url, listener))[0];
    const Json windows = Json::parse(Exporter::windowsProfilesJSON(profiles, url, listener))[0];
    EXPECT_FALSE(docker.contains("approvalWorkerURL") || docker.contains("listenerId"));
    EXPECT_FALSE(windows.contains("approvalWorkerUrl") || windows.contains("listenerId"));
  }
}

TEST(LocalUnlockerProfileExporterTest, WakeOnLANNeedsAHardwareAddress) {
  struct Case {
    std::string mac, broadcast;
    std::int64_t port;
    Json expected;  // the Wake-on-LAN keys written
  };
  const Case cases[] = {
      {"", "192.168.1.255", 7, Json::object()},
      {" \n", "192.168.1.255", 9, Json::object()},
      {"aa:bb:cc:dd:ee:ff", " ", 9, {{"wakeOnLANMACAddress", "aa:bb:cc:dd:ee:ff"}, {"wakeOnLANPort", 9}}},
      {" aa:bb ",
       " 10.0.0.255 ",
       0,
       {{"wakeOnLANMACAddress", "aa:bb"}, {"wakeOnLANBroadcastAddress", "10.0.0.255"}, {"wakeOnLANPort", 0}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected.dump());
    RecoveryProfile p = profile("E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "A", "a.local");
    p.wakeOnLANMACAddress = c.mac;
    p.wakeOnLANBroadcastAddress = c.broadcast;
    p.wakeOnLANPort = c.port;
    for (const std::string& exported : {Exporter::dockerProfilesJSON({p}, std::nullopt, std::nullopt),
                                        Exporter::windowsProfilesJSON({p}, std::nullopt, std::nullopt)}) {
      const Json object = Json::parse(exported)[0];
      Json written = Json::object();
      for (const auto& [key, value] : object.items()) {
        if (key.starts_with("wakeOnLAN")) written[key] = value;
      }
      EXPECT_EQ(written, c.expected);
    }
  }
}

TEST(LocalUnlockerProfileExporterTest, LocalRecoveryCandidates) {
  const std::pair<const char*, bool> cases[] = {
      {"mac-mini.local", true}, {" Mac-Mini.LOCAL\n", true}, {"[fe80::1%en0]", true},
      {"[::1]", true},          {"fd12:3456::1", true},      {"FC00::1", true},
      {"172.31.255.255", true}, {"172.16.0.1", true},        {"127.0.0.1", true},
      {"169.254.7.1", true},    {"10.0.0.1%eth0", true},     {"192.168.0.1", true},
      {"10..0.0.1", true},      {"172.32.0.1", false},       {"172.15.0.1", false},
      {"192.169.0.1", false},   {"169.255.0.1", false},      {"8.8.8.8", false},
      {"10.0.0.256", false},    {"10.0.0", false},           {"10.0.0.1.5", false},
      {"+10.0.0.1", false},     {"mac-mini.example", false}, {"fdic.example", false},
      {"fe80", false},          {"2001:db8::1", false},      {"", false},
      {" [] ", false},
  };
  for (const auto& [host, candidate] : cases) {
    SCOPED_TRACE(host);
    EXPECT_EQ(Exporter::isLocalRecoveryCandidate(host), candidate);
  }
}

TEST(LocalUnlockerProfileExporterTest, BlocklistWordsInAnyLetterCase) {
  const std::pair<const char*, std::optional<std::string_view>> cases[] = {
      {R"({"ListenerSecretFile": 1})", "listenersecretfile"},
      {"SSHPRIVATEKEY", "sshprivatekey"},
      {"my passwordless privateKey", "password"},
      {"credentialItemIdentifier", "credentialitemidentifier"},
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
