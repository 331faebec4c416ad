#include "core/provisioning/local_unlocker_profile_exporter.h"

#include <arpa/inet.h>

#include <array>
#include <set>

#include "core/foundation/text.h"
#include "core/foundation/uuid.h"

namespace harborkeeper {

namespace {

using json::Json;

constexpr std::size_t kMaximumRecentAddresses = 8;

constexpr std::array<std::string_view, 12> kBlocklist{"password",
                                                      "recoverykey",
                                                      "sshprivatekey",
                                                      "privatekey",
                                                      "unlocktoken",
                                                      "credentialmaterial",
                                                      "rawtranscript",
                                                      "unlockcredentialfile",
                                                      "listenersecretfile",
                                                      "listenersecrettargetname",
                                                      "listenersecretenvironmentvariable",
                                                      "credentialitemidentifier"};

// The export's own arguments, trimmed once; blank ones are left out.
struct ExportRoute {
  std::optional<std::string> approvalWorkerURL;
  std::optional<std::string> listenerID;
};

std::optional<std::string> nonBlank(const std::optional<std::string>& value) {
  if (!value) return std::nullopt;
  std::string trimmed = text::trimmed(*value);
  if (trimmed.empty()) return std::nullopt;
  return trimmed;
}

void setIfPresent(Json& object, const char* key, const std::optional<std::string>& value) {
  if (value) object[key] = *value;
}

// Trimmed entries, blank ones and case-insensitive repeats skipped.
std::vector<std::string> distinctTrimmed(const std::vector<std::string>& entries) {
  std::vector<std::string> kept;
  std::set<std::string> seen;
  for (const std::string& entry : entries) {
    std::string trimmed = text::trimmed(entry);
    if (!trimmed.empty() && seen.insert(text::lowercased(trimmed)).second) kept.push_back(std::move(trimmed));
  }
  return kept;
}

std::optional<std::array<unsigned, 4>> ipv4Octets(std::string_view host) {
  std::array<unsigned, 4> octets{};
  std::size_t count = 0;
  while (!host.empty()) {
    const std::size_t end = std::min(host.find('.'), host.size());
    const std::string_view piece = host.substr(0, end);
    host.remove_prefix(std::min(end + 1, host.size()));
    if (piece.empty()) continue;
    if (count == octets.size()) return std::nullopt;
    unsigned value = 0;
    for (const char c : piece) {
      if (c < '0' || c > '9') return std::nullopt;
      value = value * 10 + static_cast<unsigned>(c - '0');
      if (value > 255) return std::nullopt;
    }
    octets[count++] = value;
  }
  if (count != octets.size()) return std::nullopt;
  return octets;
}

bool isLocalIPv4(const std::array<unsigned, 4>& o) {
  return o[0] == 10 || (o[0] == 192 && o[1] == 168) || (o[0] == 172 && o[1] >= 16 && o[1] <= 31) ||
         o[0] == 127 || (o[0] == 169 && o[1] == 254);
}

bool isLocalIPv6(const std::string& lower) {
  in6_addr address{};
  if (::inet_pton(AF_INET6, lower.c_str(), &address) != 1) return false;
  return lower == "::1" || text::startsWith(lower, "fe80:") || text::startsWith(lower, "fc") ||
         text::startsWith(lower, "fd");
}

std::string uuidText(const RecoveryProfile& profile) { return uuid::parse(profile.id).value_or(profile.id); }

// Without a hardware address there is nothing to wake, so the rest is left out.
void addWakeOnLAN(Json& object, const RecoveryProfile& profile) {
  const std::string mac = text::trimmed(profile.wakeOnLANMACAddress);
  if (mac.empty()) return;
  object["wakeOnLANMACAddress"] = mac;
  setIfPresent(object, "wakeOnLANBroadcastAddress", nonBlank(profile.wakeOnLANBroadcastAddress));
  object["wakeOnLANPort"] = profile.wakeOnLANPort;
}

// The fields both agents read under the same keys.
Json commonFields(const RecoveryProfile& profile) {
  Json object{{"macName", text::trimmed(profile.macName)},
              {"localHostname", text::trimmed(profile.localHostname)},
              {"sshPort", profile.sshPort},
              {"fileVaultUsername", text::trimmed(profile.fileVaultUsername)},
              {"normalSSHUsername", text::trimmed(profile.normalSSHUsername)},
              {"hostKeyTrustPolicy", rawValue(profile.hostKeyTrustPolicy)},
              {"lastKnownLocalIPs", LocalUnlockerProfileExporter::recentLocalAddresses(profile)},
              {"automatedRecoveryHosts", LocalUnlockerProfileExporter::automatedRecoveryHosts(profile)},
              {"listenerApprovalPolicy", rawValue(profile.listenerApprovalPolicy)}};
  addWakeOnLAN(object, profile);
  return object;
}

Json dockerProfile(const RecoveryProfile& profile, const ExportRoute& route) {
  Json object = commonFields(profile);
  object["profileId"] = uuidText(profile);
  object["hostKeyFingerprint"] = text::trimmed(profile.hostKeyFingerprint);
  object["vpnHostname"] = text::trimmed(profile.vpnHostname);
  setIfPresent(object, "approvalWorkerURL", route.approvalWorkerURL);
  setIfPresent(object, "listenerId", route.listenerID);
  return object;
}

// The Windows agent names the one-click policy by what it does for it.
std::string_view windowsCredentialPolicy(RecoveryCredentialPolicy policy) {
  return policy == RecoveryCredentialPolicy::oneClick ? "oneClickRecovery" : rawValue(policy);
}

Json windowsProfile(const RecoveryProfile& profile, const ExportRoute& route) {
  Json object = commonFields(profile);
  const std::string id = uuidText(profile);
  object["id"] = id;
  object["sshHostKeyFingerprint"] = text::trimmed(profile.hostKeyFingerprint);
  object["credentialPolicy"] = windowsCredentialPolicy(profile.credentialPolicy);
  // Where the Windows agent keeps this machine's password in its own store.
  object["credentialTargetName"] = "Harborkeeper/" + id;
  setIfPresent(object, "vpnHostname", nonBlank(profile.vpnHostname));
  setIfPresent(object, "approvalWorkerUrl", route.approvalWorkerURL);
  setIfPresent(object, "listenerId", route.listenerID);
  return object;
}

template <typename MakeProfile>
std::string exportProfiles(const std::vector<RecoveryProfile>& profiles,
                           const std::optional<std::string>& approvalWorkerURL,
                           const std::optional<std::string>& listenerID, MakeProfile makeProfile) {
  const ExportRoute route{nonBlank(approvalWorkerURL), nonBlank(listenerID)};
  Json array = Json::array();
  for (const RecoveryProfile& profile : profiles) array.push_back(makeProfile(profile, route));
  return json::serializePretty(array);
}

}  // namespace

std::string LocalUnlockerProfileExporter::dockerProfilesJSON(
    const std::vector<RecoveryProfile>& profiles, const std::optional<std::string>& approvalWorkerURL,
    const std::optional<std::string>& listenerID) {
  return exportProfiles(profiles, approvalWorkerURL, listenerID, dockerProfile);
}

std::string LocalUnlockerProfileExporter::windowsProfilesJSON(
    const std::vector<RecoveryProfile>& profiles, const std::optional<std::string>& approvalWorkerURL,
    const std::optional<std::string>& listenerID) {
  return exportProfiles(profiles, approvalWorkerURL, listenerID, windowsProfile);
}

std::vector<std::string> LocalUnlockerProfileExporter::recentLocalAddresses(const RecoveryProfile& profile) {
  std::vector<std::string> addresses = distinctTrimmed(profile.lastKnownLocalIPs);
  if (addresses.size() > kMaximumRecentAddresses) addresses.resize(kMaximumRecentAddresses);
  return addresses;
}

std::vector<std::string> LocalUnlockerProfileExporter::automatedRecoveryHosts(
    const RecoveryProfile& profile) {
  std::vector<std::string> hosts{profile.localHostname};
  for (std::string& address : recentLocalAddresses(profile)) hosts.push_back(std::move(address));
  std::erase_if(hosts,
                [](const std::string& host) { return !isLocalRecoveryCandidate(text::trimmed(host)); });
  return distinctTrimmed(hosts);
}

bool LocalUnlockerProfileExporter::isLocalRecoveryCandidate(std::string_view host) {
  const std::string spaceless = text::trimmed(host);
  std::string_view trimmed = spaceless;
  while (!trimmed.empty() && (trimmed.front() == '[' || trimmed.front() == ']')) trimmed.remove_prefix(1);
  while (!trimmed.empty() && (trimmed.back() == '[' || trimmed.back() == ']')) trimmed.remove_suffix(1);
  if (trimmed.empty()) return false;
  const std::string lower = text::lowercased(trimmed);
  if (lower.ends_with(".local")) return true;
  const std::string address = lower.substr(0, lower.find('%'));
  if (const auto octets = ipv4Octets(address)) return isLocalIPv4(*octets);
  return isLocalIPv6(address);
}

std::optional<std::string_view> LocalUnlockerProfileExporter::sensitiveProfileExportField(
    std::string_view text) {
  const std::string lower = text::lowercased(text);
  for (const std::string_view word : kBlocklist) {
    if (lower.find(word) != std::string::npos) return word;
  }
  return std::nullopt;
}

bool LocalUnlockerProfileExporter::containsSensitiveProfileExportField(std::string_view text) {
  return sensitiveProfileExportField(text).has_value();
}

std::span<const std::string_view> LocalUnlockerProfileExporter::profileExportBlocklist() {
  return kBlocklist;
}

}  // namespace harborkeeper
