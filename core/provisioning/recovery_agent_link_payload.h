#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "core/foundation/date_time.h"
#include "core/foundation/json.h"

// The setup link a local unlocker agent introduces itself with. The link is
// public setup material only (the agent's public key, a one-time nonce, where
// its setup service listens), so the parser refuses any link that so much as
// mentions a credential-like word.
namespace harborkeeper {

enum class AgentType { docker, mac, windows };
enum class Capability { heartbeat, wakeOnLAN, automaticRecovery, phoneApproval };

// "docker", "wakeOnLAN", ...
std::string_view rawValue(AgentType value);
std::string_view rawValue(Capability value);

class RecoveryAgentLinkPayloadError : public std::runtime_error {
 public:
  enum class Kind {
    invalidFormat,
    unsupportedKind,
    unsupportedAgentType,  // raised by callers that cannot provision that type
    expired,
    missingSetupEndpoint,
    invalidSetupEndpoint,
    invalidAgentPublicKey,
    invalidNonce,
    containsSensitiveField,
  };

  explicit RecoveryAgentLinkPayloadError(Kind kind);
  [[nodiscard]] Kind kind() const noexcept { return kind_; }
  // "Recovery agent link is not valid.", ...
  static std::string_view message(Kind kind);

 private:
  Kind kind_;
};

struct RecoveryAgentLinkPayload {
  static constexpr std::string_view supportedKind = "harborkeeper.recovery-agent-link";
  static constexpr std::int64_t supportedVersion = 1;

  std::int64_t version = supportedVersion;
  std::string kind{supportedKind};
  AgentType agentType = AgentType::docker;
  std::string displayName;
  std::string setupSessionId;
  std::vector<std::string> setupEndpoints;
  std::string agentPublicKey;  // standard base64
  std::string nonce;           // standard base64
  Date expiresAt;              // coded as ISO 8601 text, whole seconds
  std::vector<Capability> capabilities;

  bool operator==(const RecoveryAgentLinkPayload&) const = default;

  // Accepts the setup link ("harborkeeper://recovery-agent/link?payload=...",
  // scheme and host in any letter case, the payload base64url with or without
  // padding) or the bare JSON text, surrounding white space ignored. Refuses,
  // in this order: a link of ours that is malformed (invalidFormat); a payload
  // whose text mentions a sensitive word in any letter case, even inside a
  // display name or a JSON text that does not decode (containsSensitiveField);
  // JSON that does not decode (invalidFormat); decoded fields that mention a
  // sensitive word a JSON escape hid from the first look
  // (containsSensitiveField); then whatever validate(now) refuses.
  // Throws RecoveryAgentLinkPayloadError only.
  static RecoveryAgentLinkPayload parse(std::string_view text, Date now = std::chrono::system_clock::now());

  // kind and version, expiry (a link expiring exactly at `now` has expired),
  // at least one endpoint, every endpoint an http(s) URL with a host, then
  // agentPublicKey and nonce each padded standard base64 of at least one byte.
  // Throws RecoveryAgentLinkPayloadError at the first failure.
  void validate(Date now) const;

  // "harborkeeper://recovery-agent/link?payload=<base64url of the JSON, no
  // padding>". Throws RecoveryAgentLinkPayloadError (invalidFormat) when no
  // URL can be formed.
  [[nodiscard]] std::string setupLink() const;

  // Every field under its own name, sorted keys; parse() reads this back.
  [[nodiscard]] json::Json toJson() const;

  // The lower-case words no link may contain, in the order they are looked for.
  static std::span<const std::string_view> sensitiveWords();
};

}  // namespace harborkeeper
