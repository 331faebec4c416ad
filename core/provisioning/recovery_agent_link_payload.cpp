#include "core/provisioning/recovery_agent_link_payload.h"

#include <algorithm>
#include <array>
#include <new>

#include "core/foundation/base64.h"
#include "core/foundation/text.h"
#include "core/provisioning/url_components.h"

namespace harborkeeper {

namespace {

using json::Json;
using Error = RecoveryAgentLinkPayloadError;

constexpr std::array<std::string_view, 3> kAgentTypes{"docker", "mac", "windows"};
constexpr std::array<std::string_view, 4> kCapabilities{"heartbeat", "wakeOnLAN", "automaticRecovery",
                                                        "phoneApproval"};
constexpr std::array<std::string_view, 10> kSensitiveWords{
    "password",           "recoverykey",   "sshprivatekey",  "privatekey",      "unlocktoken",
    "credentialmaterial", "rawtranscript", "listenersecret", "heartbeatsecret", "filevault"};

constexpr std::string_view kLinkScheme = "harborkeeper";
constexpr std::string_view kLinkHost = "recovery-agent";
constexpr std::string_view kLinkPath = "/link";
constexpr std::string_view kPayloadItem = "payload";

[[noreturn]] void fail(Error::Kind kind) { throw Error(kind); }

template <typename Enumeration, std::size_t count>
Enumeration caseNamed(const std::array<std::string_view, count>& raw, const Json& value) {
  if (!value.is_string()) fail(Error::Kind::invalidFormat);
  for (std::size_t i = 0; i < count; ++i) {
    if (raw[i] == value.get_ref<const std::string&>()) return static_cast<Enumeration>(i);
  }
  fail(Error::Kind::invalidFormat);
}

// The JSON the link carries: its payload item, or the text itself when it is
// not a link of ours (so a bare JSON document is taken as it stands).
std::string payloadText(const std::string& trimmed) {
  const std::optional<UrlComponents> url = UrlComponents::parse(trimmed);
  if (!url || url->scheme != kLinkScheme) return trimmed;
  if (text::lowercased(url->host) != kLinkHost || url->path != kLinkPath) fail(Error::Kind::invalidFormat);
  std::optional<std::string> value = url->firstQueryValue(kPayloadItem);
  if (!value) fail(Error::Kind::invalidFormat);
  for (char& c : *value) {
    if (c == '-') c = '+';
    if (c == '_') c = '/';
  }
  if (value->size() % 4 != 0) value->append(4 - value->size() % 4, '=');
  const std::optional<Bytes> bytes = base64::decode(*value);
  if (!bytes) fail(Error::Kind::invalidFormat);
  return toString(*bytes);
}

bool mentionsSensitiveWord(std::string_view text) {
  const std::string lower = text::lowercased(text::repairedUtf8(text));
  return std::ranges::any_of(kSensitiveWords,
                             [&](std::string_view word) { return lower.find(word) != std::string::npos; });
}

std::vector<std::string> stringArray(const Json& object, std::string_view key) {
  const Json& array = json::require(object, key);
  if (!array.is_array()) fail(Error::Kind::invalidFormat);
  std::vector<std::string> strings;
  for (const Json& item : array) {
    if (!item.is_string()) fail(Error::Kind::invalidFormat);
    strings.push_back(item.get<std::string>());
  }
  return strings;
}

RecoveryAgentLinkPayload decode(std::string_view text) {
  try {
    const Json object = json::parse(text);
    RecoveryAgentLinkPayload payload;
    payload.version = json::requireInteger(object, "version");
    payload.kind = json::requireString(object, "kind");
    payload.agentType = caseNamed<AgentType>(kAgentTypes, json::require(object, "agentType"));
    payload.displayName = json::requireString(object, "displayName");
    payload.setupSessionId = json::requireString(object, "setupSessionId");
    payload.setupEndpoints = stringArray(object, "setupEndpoints");
    payload.agentPublicKey = json::requireString(object, "agentPublicKey");
    payload.nonce = json::requireString(object, "nonce");
    const auto expiresAt = date_time::parseInternetDateTime(json::requireString(object, "expiresAt"));
    if (!expiresAt) fail(Error::Kind::invalidFormat);
    payload.expiresAt = *expiresAt;
    const Json& capabilities = json::require(object, "capabilities");
    if (!capabilities.is_array()) fail(Error::Kind::invalidFormat);
    for (const Json& item : capabilities) {
      payload.capabilities.push_back(caseNamed<Capability>(kCapabilities, item));
    }
    return payload;
  } catch (const json::DecodeError&) {
    fail(Error::Kind::invalidFormat);
  }
}

bool isSetupEndpoint(std::string_view endpoint) {
  const std::optional<UrlComponents> url = UrlComponents::parse(text::trimmed(endpoint));
  return url && (url->scheme == "http" || url->scheme == "https") && !url->host.empty();
}

bool isNonEmptyBase64(std::string_view text) {
  const std::optional<Bytes> bytes = base64::decode(text);
  return bytes && !bytes->empty();
}

RecoveryAgentLinkPayload parseUnchecked(std::string_view text, Date now) {
  const std::string trimmed = text::trimmed(text);
  if (trimmed.empty()) fail(Error::Kind::invalidFormat);
  const std::string json = payloadText(trimmed);
  if (mentionsSensitiveWord(json)) fail(Error::Kind::containsSensitiveField);
  RecoveryAgentLinkPayload payload = decode(json);
  // A JSON escape ("\u0070assword") hides a word from the scan above; the
  // decoded fields, written plainly, do not.
  if (mentionsSensitiveWord(json::serialize(payload.toJson()))) fail(Error::Kind::containsSensitiveField);
  payload.validate(now);
  return payload;
}

}  // namespace

std::string_view rawValue(AgentType value) { return kAgentTypes.at(static_cast<std::size_t>(value)); }
std::string_view rawValue(Capability value) { return kCapabilities.at(static_cast<std::size_t>(value)); }

RecoveryAgentLinkPayloadError::RecoveryAgentLinkPayloadError(Kind kind)
    : std::runtime_error(std::string(message(kind))), kind_(kind) {}

std::string_view RecoveryAgentLinkPayloadError::message(Kind kind) {
  switch (kind) {
    case Kind::invalidFormat:
      return "Recovery agent link is not valid.";
    case Kind::unsupportedKind:
      return "Recovery agent link type is not supported.";
    case Kind::unsupportedAgentType:
      return "Recovery agent type is not supported.";
    case Kind::expired:
      return "Recovery agent link has expired.";
    case Kind::missingSetupEndpoint:
      return "Recovery agent link is missing a setup endpoint.";
    case Kind::invalidSetupEndpoint:
      return "Recovery agent link contains an invalid setup endpoint.";
    case Kind::invalidAgentPublicKey:
      return "Recovery agent link contains an invalid setup key.";
    case Kind::invalidNonce:
      return "Recovery agent link contains an invalid setup nonce.";
    case Kind::containsSensitiveField:
      return "Recovery agent link must not contain passwords, secrets, or credentials.";
  }
  return "Recovery agent link is not valid.";
}

RecoveryAgentLinkPayload RecoveryAgentLinkPayload::parse(std::string_view text, Date now) {
  try {
    return parseUnchecked(text, now);
  } catch (const Error&) {
    throw;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {
    fail(Error::Kind::invalidFormat);
  }
}

void RecoveryAgentLinkPayload::validate(Date now) const {
  if (kind != supportedKind || version != supportedVersion) fail(Error::Kind::unsupportedKind);
  if (expiresAt <= now) fail(Error::Kind::expired);
  if (setupEndpoints.empty()) fail(Error::Kind::missingSetupEndpoint);
  for (const std::string& endpoint : setupEndpoints) {
    if (!isSetupEndpoint(endpoint)) fail(Error::Kind::invalidSetupEndpoint);
  }
  if (!isNonEmptyBase64(agentPublicKey)) fail(Error::Kind::invalidAgentPublicKey);
  if (!isNonEmptyBase64(nonce)) fail(Error::Kind::invalidNonce);
}

std::string RecoveryAgentLinkPayload::setupLink() const {
  const std::string encoded = base64::encodeUrl(json::serialize(toJson()));
  const UrlComponents components{std::string(kLinkScheme),
                                 std::string(kLinkHost),
                                 std::string(kLinkPath),
                                 {{std::string(kPayloadItem), encoded}}};
  std::optional<std::string> url = components.url();
  if (!url) fail(Error::Kind::invalidFormat);
  return std::move(*url);
}

json::Json RecoveryAgentLinkPayload::toJson() const {
  Json capabilityNames = Json::array();
  for (const Capability capability : capabilities) capabilityNames.push_back(rawValue(capability));
  return Json{{"version", version},
              {"kind", kind},
              {"agentType", rawValue(agentType)},
              {"displayName", displayName},
              {"setupSessionId", setupSessionId},
              {"setupEndpoints", setupEndpoints},
              {"agentPublicKey", agentPublicKey},
              {"nonce", nonce},
              {"expiresAt", date_time::formatInternetDateTime(expiresAt)},
              {"capabilities", std::move(capabilityNames)}};
}

std::span<const std::string_view> RecoveryAgentLinkPayload::sensitiveWords() { return kSensitiveWords; }

}  // namespace harborkeeper
