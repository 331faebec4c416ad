// Any host text: whether it is a local recovery candidate must not depend on
// the white space or brackets around it, and an export built from it (as the
// host name and, line by line, as recent addresses) lists only candidates.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "core/foundation/json.h"
#include "core/foundation/text.h"
#include "core/provisioning/local_unlocker_profile_exporter.h"

using harborkeeper::LocalUnlockerProfileExporter;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string host(reinterpret_cast<const char*>(data), size);
  const std::string trimmed = harborkeeper::text::trimmed(host);
  const auto isCandidate = LocalUnlockerProfileExporter::isLocalRecoveryCandidate;
  const bool candidate = isCandidate(host);
  if (isCandidate(" \n" + host + "\t") != candidate || isCandidate("[" + trimmed + "]") != candidate) {
    std::abort();
  }

  harborkeeper::RecoveryProfile profile;
  profile.id = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
  profile.localHostname = host;
  std::istringstream lines(host);
  for (std::string line; std::getline(lines, line);) profile.lastKnownLocalIPs.push_back(line);
  const auto hosts = LocalUnlockerProfileExporter::automatedRecoveryHosts(profile);
  for (const std::string& listed : hosts) {
    if (!isCandidate(listed)) std::abort();
  }
  if (candidate && (hosts.empty() || hosts.front() != trimmed)) std::abort();
  if (LocalUnlockerProfileExporter::recentLocalAddresses(profile).size() > 8) std::abort();
  const auto exported =
      harborkeeper::json::parse(LocalUnlockerProfileExporter::dockerProfilesJSON({profile}, {}, {}));
  if (!exported.is_array() || exported.size() != 1) std::abort();
  return 0;
}
