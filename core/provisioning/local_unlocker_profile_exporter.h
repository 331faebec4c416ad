#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/recovery/recovery_profile.h"

namespace harborkeeper {

// Turns saved recovery profiles into the JSON document a local unlocker agent
// imports: what it needs to find each machine and reach it over SSH, never a
// password or other secret. Stateless.
class LocalUnlockerProfileExporter final {
 public:
  LocalUnlockerProfileExporter() = delete;

  // A pretty-printed JSON array (sorted keys, "/" not escaped), one object per
  // profile in input order. The approval worker URL and listener id, trimmed,
  // go into every profile; missing or blank ones write no key. The Docker
  // agent reads "approvalWorkerURL", the Windows agent "approvalWorkerUrl".
  static std::string dockerProfilesJSON(const std::vector<RecoveryProfile>& profiles,
                                        const std::optional<std::string>& approvalWorkerURL,
                                        const std::optional<std::string>& listenerID);
  static std::string windowsProfilesJSON(const std::vector<RecoveryProfile>& profiles,
                                         const std::optional<std::string>& approvalWorkerURL,
                                         const std::optional<std::string>& listenerID);

  // lastKnownLocalIPs trimmed, empty ones and case-insensitive duplicates
  // dropped (the first spelling kept), at most 8.
  static std::vector<std::string> recentLocalAddresses(const RecoveryProfile& profile);
  // localHostname, then the recent local addresses, keeping only local
  // recovery candidates, case-insensitive duplicates dropped. Never the VPN host.
  static std::vector<std::string> automatedRecoveryHosts(const RecoveryProfile& profile);

  // Whether an agent may try `host` by itself: trimmed (white space, then "["
  // and "]"), a name ending in ".local", or (an IPv6 zone "%..." cut off) a
  // private, loopback or link-local IPv4 address, or an IPv6 address that is
  // "::1" or begins "fe80:", "fc" or "fd". IPv4 here is four dot-separated
  // decimal numbers below 256 (empty pieces skipped); IPv6 must be a valid
  // address, so a host name merely beginning "fd" is not a candidate.
  static bool isLocalRecoveryCandidate(std::string_view host);

  // The first export-field blocklist word that the lower-cased text contains.
  static std::optional<std::string_view> sensitiveProfileExportField(std::string_view text);
  static bool containsSensitiveProfileExportField(std::string_view text);
  static std::span<const std::string_view> profileExportBlocklist();
};

}  // namespace harborkeeper
