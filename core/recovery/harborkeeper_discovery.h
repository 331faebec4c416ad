#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// How Harborkeeper machines announce themselves on the local network over
// DNS-SD, and how a browse's results are judged before anyone may build a
// recovery profile from them. Pure rules: browsing itself is behind
// ServiceDiscovery (dns_service_discovery.h).
namespace harborkeeper {

using TXTRecord = std::map<std::string, std::string>;

// One resolved service instance.
struct RecoveryDiscoveryCandidate {
  std::string id;           // the instance's full DNS-SD name, unique in one browse
  std::string serviceName;  // the instance name
  std::string hostname;     // as resolved; may end in "."
  std::int64_t port = 0;
  TXTRecord txtRecord;
  std::vector<std::string> lastKnownLocalIPs;  // addresses resolved for the host

  bool operator==(const RecoveryDiscoveryCandidate&) const = default;

  // The trimmed service name unless it is empty or generic; otherwise the
  // normalized host name.
  [[nodiscard]] std::string displayName() const;
  // The host name without one trailing ".".
  [[nodiscard]] std::string normalizedHostname() const;
  // "pairing" is "1" and a session identifier is present.
  [[nodiscard]] bool isPairingWindowOpen() const;
  // The "session" value when non-empty.
  [[nodiscard]] std::optional<std::string> pairingSessionIdentifier() const;
};

struct HarborkeeperDiscovery {
  static constexpr std::string_view serviceName = "Harborkeeper";
  static constexpr std::string_view advertisedServiceName = "Harborkeeper";
  static constexpr std::string_view serviceType = "_harborkeeper._tcp.";
  static constexpr std::string_view domain = "local.";
  static constexpr std::int32_t defaultSSHPort = 22;
  static constexpr std::string_view pairingTXTKey = "pairing";
  static constexpr std::string_view pairingSessionTXTKey = "session";

  // "app", "bundle", "hostname", "version" ("1"), plus "pairing" ("1") and
  // "session" (trimmed) when a session identifier is non-empty once trimmed.
  // Never anything else: the record is public on the network.
  static TXTRecord advertisedTXTRecord(std::string_view appName, std::string_view bundleIdentifier,
                                       std::string_view hostname,
                                       const std::optional<std::string>& pairingSessionIdentifier);

  // The ".local" name of this machine: the configured local host name when it
  // is non-empty once trimmed, else the process's host name, else "localhost".
  static std::string localBonjourHostname(std::string_view localHostName, std::string_view processHostName);
  // The same for this machine. Linux has no separate local host name setting,
  // so both come from gethostname().
  static std::string localBonjourHostname();

  // Trimmed, one trailing "." removed, ".local" appended unless it already
  // ends so (any case); "localhost" when nothing is left.
  static std::string bonjourHostname(std::string_view localHostName);

  // "Harborkeeper" or a duplicate's renaming "Harborkeeper (...".
  static bool isGenericServiceName(std::string_view name);
  // A generic instance whose host is just its own name and whose record says
  // nothing about the host: nothing was really resolved.
  static bool isUnresolvedGenericService(const RecoveryDiscoveryCandidate& candidate);
  // Both names, as ".local" names and lower-cased, are equal.
  static bool isLocalHostname(std::string_view hostname, std::string_view localHostname);
  // Neither unresolved nor this machine itself.
  static bool shouldDisplayCandidate(const RecoveryDiscoveryCandidate& candidate,
                                     std::string_view localHostname);

  // Whether the service name, host name or any TXT entry, reduced to its
  // lower-cased letters and digits ("key value"), mentions a credential,
  // password, recovery key, unlock or secret. Such a candidate must not be
  // used to build a profile.
  static bool containsCredentialDisclosure(const RecoveryDiscoveryCandidate& candidate);
};

}  // namespace harborkeeper
