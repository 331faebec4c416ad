#include "core/heartbeat/docker_heartbeat_configuration.h"

#include <algorithm>
#include <cmath>

#include "core/foundation/plist.h"
#include "core/foundation/text.h"

namespace harborkeeper {

namespace {

constexpr std::string_view kEndpointURLKey = "endpointURL";
constexpr std::string_view kProfileIDKey = "profileID";
constexpr std::string_view kSharedSecretKey = "sharedSecret";
constexpr std::string_view kIntervalSecondsKey = "intervalSeconds";
constexpr std::string_view kConfiguredKey = "configured";
constexpr std::size_t kMinimumSecretLength = 24;

std::string errorText(DockerHeartbeatConfigurationStoreError::Kind kind, const std::string& detail) {
  using Kind = DockerHeartbeatConfigurationStoreError::Kind;
  switch (kind) {
    case Kind::invalidConfiguration:
      return "Docker heartbeat configuration is invalid. " + detail;
    case Kind::insecureConfiguration:
      return "Docker heartbeat configuration is not stored safely. " + detail;
    case Kind::loadFailed:
      return "Docker heartbeat configuration could not be read. " + detail;
    case Kind::writeFailed:
      return "Docker heartbeat configuration could not be stored. " + detail;
    case Kind::missingConfiguration:
      break;
  }
  return "Docker heartbeat is not configured.";
}

// A URL's scheme as RFC 3986 has it: a letter, then letters, digits, "+",
// "-" or ".", ended by ":". The rest only has to be printable ASCII without
// spaces; no host is required.
bool hasHttpScheme(std::string_view url) {
  if (url.empty() || std::any_of(url.begin(), url.end(), [](char c) { return c <= ' ' || c > '~'; })) {
    return false;
  }
  const std::size_t colon = url.find(':');
  if (colon == std::string_view::npos || colon == 0) return false;
  const std::string_view scheme = url.substr(0, colon);
  const auto isSchemeCharacter = [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '+' || c == '-' || c == '.';
  };
  if (std::isalpha(static_cast<unsigned char>(scheme.front())) == 0 ||
      !std::all_of(scheme.begin(), scheme.end(), isSchemeCharacter)) {
    return false;
  }
  const std::string lower = text::lowercased(scheme);
  return lower == "http" || lower == "https";
}

double requireNumber(const plist::Dictionary& dictionary, std::string_view key) {
  const plist::Value& value = plist::require(dictionary, key);
  if (const auto* real = value.get<double>()) return *real;
  if (const auto* integer = value.get<std::int64_t>()) return static_cast<double>(*integer);
  throw plist::DecodeError::corrupted();
}

}  // namespace

DockerHeartbeatConfigurationStoreError::DockerHeartbeatConfigurationStoreError(Kind kind, std::string detail)
    : std::runtime_error(errorText(kind, detail)), kind_(kind), detail_(std::move(detail)) {}

Bytes DockerHeartbeatConfiguration::encodeXml() const {
  plist::Dictionary dictionary;
  dictionary.emplace(kEndpointURLKey, endpointURL);
  dictionary.emplace(kProfileIDKey, profileID);
  dictionary.emplace(kSharedSecretKey, sharedSecret);
  dictionary.emplace(kIntervalSecondsKey, intervalSeconds);
  plist::Value root(std::move(dictionary));
  const WipeOnExit wipe(root);
  return plist::encode(root, plist::Format::xml);
}

DockerHeartbeatConfiguration DockerHeartbeatConfiguration::decode(std::string_view bytes) {
  plist::Value root = plist::decode(bytes);
  const WipeOnExit wipe(root);
  const plist::Dictionary& dictionary = plist::asDictionary(root);
  return {plist::requireString(dictionary, kEndpointURLKey), plist::requireString(dictionary, kProfileIDKey),
          plist::requireString(dictionary, kSharedSecretKey), requireNumber(dictionary, kIntervalSecondsKey)};
}

void DockerHeartbeatConfiguration::validate() const {
  using Error = DockerHeartbeatConfigurationStoreError;
  if (!hasHttpScheme(endpointURL)) {
    throw Error::invalidConfiguration("Use a valid HTTP or HTTPS heartbeat URL.");
  }
  if (text::trimmed(profileID).empty()) throw Error::invalidConfiguration("Missing Docker profile id.");
  std::string trimmedSecret = text::trimmed(sharedSecret);
  const WipeOnExit wipe(trimmedSecret);
  if (text::userPerceivedLength(trimmedSecret) < kMinimumSecretLength) {
    throw Error::invalidConfiguration("Heartbeat secret must be at least 24 characters.");
  }
}

void DockerHeartbeatConfiguration::secureWipe() noexcept { harborkeeper::secureWipe(sharedSecret); }

DockerHeartbeatStatus DockerHeartbeatStatus::of(const DockerHeartbeatConfiguration& configuration) {
  return {true, configuration.endpointURL, configuration.profileID,
          DockerHeartbeatIntervalBounds{}.clamped(configuration.intervalSeconds)};
}

Bytes DockerHeartbeatStatus::encodeXml() const {
  plist::Dictionary dictionary;
  dictionary.emplace(kConfiguredKey, configured);
  dictionary.emplace(kEndpointURLKey, endpointURL);
  dictionary.emplace(kProfileIDKey, profileID);
  dictionary.emplace(kIntervalSecondsKey, intervalSeconds);
  return plist::encode(plist::Value(std::move(dictionary)), plist::Format::xml);
}

DockerHeartbeatStatus DockerHeartbeatStatus::decode(std::string_view bytes) {
  const plist::Value root = plist::decode(bytes);
  const plist::Dictionary& dictionary = plist::asDictionary(root);
  return {plist::requireBool(dictionary, kConfiguredKey), plist::requireString(dictionary, kEndpointURLKey),
          plist::requireString(dictionary, kProfileIDKey), requireNumber(dictionary, kIntervalSecondsKey)};
}

double DockerHeartbeatIntervalBounds::clamped(double requestedSeconds) const noexcept {
  if (std::isnan(requestedSeconds)) return minimumSeconds;
  return std::clamp(requestedSeconds, minimumSeconds, maximumSeconds);
}

std::chrono::seconds DockerHeartbeatIntervalBounds::timerInterval(double requestedSeconds) const noexcept {
  const auto seconds = static_cast<std::chrono::seconds::rep>(std::round(clamped(requestedSeconds)));
  return std::chrono::seconds(std::max<std::chrono::seconds::rep>(seconds, 1));
}

}  // namespace harborkeeper
