// Any host text: whether it is a local recovery candidate must not depend on
// the white space or brackets around it, and an export built from it (as the
// host name and, line by line, as recent addresses) lists only candidates.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/foundation/json.h"
#include "core/foundation/text.h"
#include "core/provisioning/local_unlocker_profile_exporter.h"

namespace {

using harborkeeper::LocalUnlockerProfileExporter;

harborkeeper::RecoveryProfile profileFor(const std::string& host) {
  harborkeeper::RecoveryProfile profile;
  profile.id = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
  profile.localHostname = host;
  for (std::size_t start = 0; start <= host.size();) {
    const std::size_t end = std::min(host.find('\n', start), host.size());
    profile.lastKnownLocalIPs.push_back(host.substr(start, end - start));
    start = end + 1;
  }
  return profile;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string host(reinterpret_cast<const char*>(data), size);
  const bool candidate = LocalUnlockerProfileExporter::isLocalRecoveryCandidate(host);
  if (LocalUnlockerProfileExporter::isLocalRecoveryCandidate(" \n" + host + "\t") != candidate) std::abort();
  const std::string trimmed = harborkeeper::text::trimmed(host);
  if (LocalUnlockerProfileExporter::isLocalRecoveryCandidate("[" + trimmed + "]") != candidate) std::abort();

  const harborkeeper::RecoveryProfile profile = profileFor(host);
  const auto hosts = LocalUnlockerProfileExporter::automatedRecoveryHosts(profile);
  for (const std::string& listed : hosts) {
    if (!LocalUnlockerProfileExporter::isLocalRecoveryCandidate(listed)) std::abort();
  }
  if (candidate && (hosts.empty() || hosts.front() != trimmed)) std::abort();
  if (LocalUnlockerProfileExporter::recentLocalAddresses(profile).size() > 8) std::abort();
  const auto exported =
      harborkeeper::json::parse(LocalUnlockerProfileExporter::dockerProfilesJSON({profile}, {}, {}));
  if (!exported.is_array() || exported.size() != 1) std::abort();
  return 0;
}
