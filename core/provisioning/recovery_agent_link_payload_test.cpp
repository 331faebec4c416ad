#include "core/provisioning/recovery_agent_link_payload.h"

#include <variant>

#include <gtest/gtest.h>

#include "core/foundation/base64.h"
#include "core/foundation/text.h"

namespace harborkeeper {
namespace {

using json::Json;
using Kind = RecoveryAgentLinkPayloadError::Kind;
using Outcome = std::variant<std::string, Kind>;

constexpr std::string_view kLinkPrefix = "harborkeeper://recovery-agent/link?payload=";

Date at(std::string_view iso) { return date_time::parseInternetDateTime(iso).value(); }

const Date kNow = at("2026-11-15T16:00:00Z");

RecoveryAgentLinkPayload sample() {
  return {.displayName = "Closet unlocker 2",  // so that the link drops one "=" of padding
          .setupSessionId = "session-42",
          .setupEndpoints = {"https://unlocker.local:8443/setup", "http://192.168.1.9:8080/setup"},
          .agentPublicKey = "BHB1YmxpYy1rZXk=",
          .nonce = "bm9uY2UtMTIz",
          .expiresAt = at("2026-11-15T16:20:00Z"),
          .capabilities = {Capability::heartbeat, Capability::wakeOnLAN}};
}

// What parse makes of `text`: the payload's display name, or the error's kind.
Outcome outcome(const std::string& text) {
  try {
    return RecoveryAgentLinkPayload::parse(text, kNow).displayName;
  } catch (const RecoveryAgentLinkPayloadError& error) {
    EXPECT_EQ(error.what(), RecoveryAgentLinkPayloadError::message(error.kind()));
    return error.kind();
  }
}

std::string linkTo(std::string_view json) { return std::string(kLinkPrefix) + base64::encodeUrl(json); }

// Encoded by another implementation (Python's json and base64 modules), so that
// our encoder and decoder cannot agree on a wrong alphabet, key or date form.
TEST(RecoveryAgentLinkPayloadTest, LinkMadeElsewhereParsesAndIsReproduced) {
  const std::string link =
      std::string(kLinkPrefix) +
      "eyJhZ2VudFB1YmxpY0tleSI6IkJIQjFZbXhwWXkxclpYaz0iLCJhZ2VudFR5cGUiOiJtYWMiLCJjYXBhYmlsaXRpZXMiOlsiaGVh"
      "cnRiZWF0Iiwid2FrZU9uTEFOIiwiYXV0b21hdGljUmVjb3ZlcnkiLCJwaG9uZUFwcHJvdmFsIl0sImRpc3BsYXlOYW1lIjoiQsO8"
      "cm8gcmFjaz4_IOKYlSB-PyIsImV4cGlyZXNBdCI6IjIwMjYtMTEtMTVUMTY6MjA6MDBaIiwia2luZCI6ImhhcmJvcmtlZXBlci5y"
      "ZWNvdmVyeS1hZ2VudC1saW5rIiwibm9uY2UiOiJibTl1WTJVdE1USXoiLCJzZXR1cEVuZHBvaW50cyI6WyJodHRwczovL3VubG9j"
      "a2VyLmxvY2FsOjg0NDMvc2V0dXAiLCJodHRwOi8vMTkyLjE2OC4xLjk6ODA4MC9zZXR1cCJdLCJzZXR1cFNlc3Npb25JZCI6InNl"
      "c3Npb24tNDIiLCJ2ZXJzaW9uIjoxfQ";
  RecoveryAgentLinkPayload expected = sample();
  expected.agentType = AgentType::mac;
  expected.displayName = "B\u00fcro rack>? \u2615 ~?";
  expected.capabilities = {Capability::heartbeat, Capability::wakeOnLAN, Capability::automaticRecovery,
                           Capability::phoneApproval};
  EXPECT_EQ(RecoveryAgentLinkPayload::parse(link, kNow), expected);
  EXPECT_EQ(expected.setupLink(), link);
}

TEST(RecoveryAgentLinkPayloadTest, FieldProblemsAreReportedInPrecedenceOrder) {
  // {what changes (merged into a good payload; null removes a key), outcome}
  const std::pair<const char*, std::optional<Kind>> cases[] = {
      {R"({"comment": "extra keys are ignored"})", std::nullopt},
      {R"({"agentType": "windows", "capabilities": []})", std::nullopt},
      {R"({"setupEndpoints": [" HTTPS://Unlocker.LOCAL:8443/\n", "http://[fe80::1]/"]})", std::nullopt},
      {R"({"expiresAt": "2026-11-15T16:00:01Z"})", std::nullopt},
      {R"({"fileVaultUser": 1, "expiresAt": "2026-11-15T15:00:00Z"})", Kind::containsSensitiveField},
      {R"({"version": "1"})", Kind::invalidFormat},
      {R"({"nonce": null})", Kind::invalidFormat},
      {R"({"agentType": "linux"})", Kind::invalidFormat},
      {R"({"capabilities": ["heartbeat", "teleport"]})", Kind::invalidFormat},
      {R"({"expiresAt": "2026-11-15T16:20:00"})", Kind::invalidFormat},
      {R"({"setupEndpoints": "https://a"})", Kind::invalidFormat},
      {R"({"version": 2})", Kind::unsupportedKind},
      {R"({"kind": "other", "expiresAt": "2026-11-15T15:00:00Z"})", Kind::unsupportedKind},
      {R"({"expiresAt": "2026-11-15T16:00:00Z"})", Kind::expired},
      {R"({"expiresAt": "2026-11-15T15:00:00Z", "setupEndpoints": []})", Kind::expired},
      {R"({"setupEndpoints": []})", Kind::missingSetupEndpoint},
      {R"({"setupEndpoints": ["https:///path"]})", Kind::invalidSetupEndpoint},
      {R"({"setupEndpoints": ["https:/host/path"]})", Kind::invalidSetupEndpoint},
      {R"({"setupEndpoints": ["unlocker.local"]})", Kind::invalidSetupEndpoint},
      {R"({"setupEndpoints": ["https://a", "http://b c", "https://d"]})", Kind::invalidSetupEndpoint},
      {R"({"setupEndpoints": ["ftp://h"], "agentPublicKey": ""})", Kind::invalidSetupEndpoint},
      {R"({"agentPublicKey": ""})", Kind::invalidAgentPublicKey},
      {R"({"agentPublicKey": "-_8="})", Kind::invalidAgentPublicKey},
      {R"({"agentPublicKey": "YWI", "nonce": ""})", Kind::invalidAgentPublicKey},
      {R"({"nonce": ""})", Kind::invalidNonce},
  };
  for (const auto& [change, kind] : cases) {
    SCOPED_TRACE(change);
    Json payload = sample().toJson();
    payload.merge_patch(Json::parse(change));
    const std::string text = json::serialize(payload);
    const Outcome expected = kind ? Outcome(*kind) : Outcome(payload["displayName"].get<std::string>());
    EXPECT_EQ(outcome(text), expected);
    EXPECT_EQ(outcome(linkTo(text)), expected);
  }
}

TEST(RecoveryAgentLinkPayloadTest, LinkTextIsReadOrRefused) {
  const std::string good = json::serialize(sample().toJson());
  const std::string value = base64::encodeUrl(good);
  const std::string wrapped = std::string(kLinkPrefix) + value;
  const std::pair<std::string, std::optional<Kind>> cases[] = {
      {good, std::nullopt},
      {" \n" + wrapped + "\t\n", std::nullopt},
      {"HARBORKEEPER://RECOVERY-AGENT/link?payload=" + value, std::nullopt},
      {wrapped + "&payload=garbage#fragment", std::nullopt},
      {"harborkeeper://recovery-agent/link?via=qr&payload=%65%79" + value.substr(2), std::nullopt},
      {wrapped + std::string((4 - value.size() % 4) % 4, '='), std::nullopt},
      {" \n\t", Kind::invalidFormat},
      {"harborkeeper://recovery-agent/x/../link?payload=" + value, Kind::invalidFormat},
      {"harborkeeper://other-agent/link?payload=" + value, Kind::invalidFormat},
      {"https://recovery-agent/link?payload=" + value, Kind::invalidFormat},  // not ours, so not JSON
      {"harborkeeper://recovery-agent/link", Kind::invalidFormat},
      {"harborkeeper://recovery-agent/link?payload&payload=" + value, Kind::invalidFormat},
      {"harborkeeper://recovery-agent/link?payload=%zz" + value, Kind::invalidFormat},
      {wrapped.substr(0, wrapped.size() - (value.size() % 4 + 3) % 4), Kind::invalidFormat},  // length 4n+1
      {text::replacingOccurrences(good, "Closet", R"(\u0070assword)"), Kind::containsSensitiveField},
      {R"({"displayName": "PassWord)", Kind::containsSensitiveField},
      {linkTo("\xFF\xFE {\"HeartbeatSecret\": "), Kind::containsSensitiveField},
      {linkTo("\xFF{}"), Kind::invalidFormat},
  };
  for (const auto& [text, kind] : cases) {
    SCOPED_TRACE(text);
    if (kind) {
      EXPECT_EQ(outcome(text), Outcome(*kind));
    } else {
      EXPECT_EQ(RecoveryAgentLinkPayload::parse(text, kNow), sample());
    }
  }
}

}  // namespace
}  // namespace harborkeeper
