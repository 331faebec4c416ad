#include "core/recovery/harborkeeper_discovery.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>

#include "core/foundation/text.h"

namespace harborkeeper {

namespace {

constexpr std::string_view kLocalSuffix = ".local";

std::string withoutTrailingDot(std::string_view name) {
  if (name.ends_with('.')) name.remove_suffix(1);
  return std::string(name);
}

// Unicode letters and digits only, so that "Recovery-Key" and "recovery key"
// and "re\u200bcovery key" all read "recoverykey".
std::string lettersAndDigits(std::string_view text) {
  std::string kept;
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  const auto length = static_cast<std::int32_t>(text.size());
  for (std::int32_t index = 0; index < length;) {
    const std::int32_t start = index;
    UChar32 c = 0;
    U8_NEXT(bytes, index, length, c);
    const bool keep = c >= 0 && (u_hasBinaryProperty(c, UCHAR_ALPHABETIC) ||
                                 u_getIntPropertyValue(c, UCHAR_NUMERIC_TYPE) != U_NT_NONE);
    if (keep) kept.append(text.substr(start, index - start));
  }
  return kept;
}

bool mentionsCredential(std::string_view key, std::string_view value) {
  static constexpr std::array<std::string_view, 5> kWords = {"credential", "password", "recoverykey",
                                                             "unlock", "secret"};
  const std::string reduced = lettersAndDigits(text::lowercased(std::string(key) + " " + std::string(value)));
  return std::ranges::any_of(kWords,
                             [&](std::string_view word) { return reduced.find(word) != std::string::npos; });
}

}  // namespace

std::string RecoveryDiscoveryCandidate::displayName() const {
  std::string name = text::trimmed(serviceName);
  if (name.empty() || HarborkeeperDiscovery::isGenericServiceName(name)) return normalizedHostname();
  return name;
}

std::string RecoveryDiscoveryCandidate::normalizedHostname() const { return withoutTrailingDot(hostname); }

bool RecoveryDiscoveryCandidate::isPairingWindowOpen() const {
  const auto pairing = txtRecord.find(std::string(HarborkeeperDiscovery::pairingTXTKey));
  return pairing != txtRecord.end() && pairing->second == "1" && pairingSessionIdentifier().has_value();
}

std::optional<std::string> RecoveryDiscoveryCandidate::pairingSessionIdentifier() const {
  const auto session = txtRecord.find(std::string(HarborkeeperDiscovery::pairingSessionTXTKey));
  if (session == txtRecord.end() || session->second.empty()) return std::nullopt;
  return session->second;
}

TXTRecord HarborkeeperDiscovery::advertisedTXTRecord(
    std::string_view appName, std::string_view bundleIdentifier, std::string_view hostname,
    const std::optional<std::string>& pairingSessionIdentifier) {
  TXTRecord record{{"app", std::string(appName)},
                   {"bundle", std::string(bundleIdentifier)},
                   {"hostname", std::string(hostname)},
                   {"version", "1"}};
  const std::string session = text::trimmed(pairingSessionIdentifier.value_or(""));
  if (!session.empty()) {
    record[std::string(pairingTXTKey)] = "1";
    record[std::string(pairingSessionTXTKey)] = session;
  }
  return record;
}

std::string HarborkeeperDiscovery::localBonjourHostname(std::string_view localHostName,
                                                        std::string_view processHostName) {
  if (!text::trimmed(localHostName).empty()) return bonjourHostname(localHostName);
  if (text::trimmed(processHostName).empty()) return "localhost";
  return bonjourHostname(processHostName);
}

std::string HarborkeeperDiscovery::localBonjourHostname() {
  std::array<char, HOST_NAME_MAX + 1> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0) return localBonjourHostname("", "");
  return localBonjourHostname("", name.data());
}

std::string HarborkeeperDiscovery::bonjourHostname(std::string_view localHostName) {
  std::string name = withoutTrailingDot(text::trimmed(localHostName));
  if (name.empty()) return "localhost";
  if (text::lowercased(name).ends_with(kLocalSuffix)) return name;
  return name + std::string(kLocalSuffix);
}

bool HarborkeeperDiscovery::isGenericServiceName(std::string_view name) {
  return name == serviceName || name.starts_with(std::string(serviceName) + " (");
}

bool HarborkeeperDiscovery::isUnresolvedGenericService(const RecoveryDiscoveryCandidate& candidate) {
  if (!isGenericServiceName(candidate.serviceName)) return false;
  return text::lowercased(candidate.normalizedHostname()) == text::lowercased(candidate.serviceName) &&
         !candidate.txtRecord.contains("hostname");
}

bool HarborkeeperDiscovery::isLocalHostname(std::string_view hostname, std::string_view localHostname) {
  const auto comparable = [](std::string_view name) {
    return text::lowercased(text::trimmed(bonjourHostname(name)));
  };
  return comparable(hostname) == comparable(localHostname);
}

bool HarborkeeperDiscovery::shouldDisplayCandidate(const RecoveryDiscoveryCandidate& candidate,
                                                   std::string_view localHostname) {
  return !isUnresolvedGenericService(candidate) && !isLocalHostname(candidate.hostname, localHostname);
}

bool HarborkeeperDiscovery::containsCredentialDisclosure(const RecoveryDiscoveryCandidate& candidate) {
  return mentionsCredential("serviceName", candidate.serviceName) ||
         mentionsCredential("hostname", candidate.hostname) ||
         std::ranges::any_of(candidate.txtRecord,
                             [](const auto& entry) { return mentionsCredential(entry.first, entry.second); });
}

}  // namespace harborkeeper
