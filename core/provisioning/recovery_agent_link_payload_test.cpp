#include "core/provisioning/recovery_agent_link_payload.h"

#include <variant>

#include <gtest/gtest.h>

#include "core/foundation/base64.h"
#include "core/foundation/text.h"
#include "core/platform/command_runner.h"

namespace harborkeeper {
namespace {

using json::Json;
using Kind = RecoveryAgentLinkPayloadError::Kind;
using Outcome = std::variant<std::string, Kind>;

constexpr std::string_view kLinkPrefix = "harborkeeper://recovery-agent/link?payload=";

Date at(std::string_view iso) { return date_time::parseInternetDateTime(iso).value(); }

const Date kNow = at("2026-11-15T16:00:00Z");

RecoveryAgentLinkPayload sample() {
  return {.version = 1,
          .kind = std::string(RecoveryAgentLinkPayload::supportedKind),
          .agentType = AgentType::docker,
          .displayName = "Closet unlocker",
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

TEST(RecoveryAgentLinkPayloadTest, SetupLinkRoundTripsWhateverThePaddingAndSpelling) {
  for (const std::string name : {"Closet", "Closet1", "Closet12"}) {  // every base64 remainder
    SCOPED_TRACE(name);
    RecoveryAgentLinkPayload payload = sample();
    payload.displayName = name;
    const std::string link = payload.setupLink();
    ASSERT_TRUE(link.starts_with(kLinkPrefix));
    EXPECT_EQ(link.find_first_of("=+/", kLinkPrefix.size()), std::string::npos);
    EXPECT_EQ(RecoveryAgentLinkPayload::parse(" \n" + link + "\t\n", kNow), payload);
    const std::string shouted = "HARBORKEEPER://RECOVERY-AGENT" +
                                link.substr(std::string_view("harborkeeper://recovery-agent").size());
    EXPECT_EQ(RecoveryAgentLinkPayload::parse(shouted, kNow), payload);
    EXPECT_EQ(RecoveryAgentLinkPayload::parse(json::serialize(payload.toJson()), kNow), payload);
  }
  RecoveryAgentLinkPayload soon = sample();
  soon.expiresAt = kNow + std::chrono::milliseconds(1);
  EXPECT_NO_THROW(soon.validate(kNow));
  EXPECT_EQ(Json::parse(json::serialize(sample().toJson()))["expiresAt"], "2026-11-15T16:20:00Z");
}

TEST(RecoveryAgentLinkPayloadTest, FieldProblemsAreReportedInPrecedenceOrder) {
  // {what changes (merged into a good payload; null removes a key), outcome}
  const std::pair<const char*, std::optional<Kind>> cases[] = {
      {R"({"comment": "extra keys are ignored"})", std::nullopt},
      {R"({"agentType": "windows", "capabilities": []})", std::nullopt},
      {R"({"setupEndpoints": [" HTTPS://Unlocker.LOCAL:8443/\n", "http://[fe80::1]/"]})", std::nullopt},
      {R"({"displayName": "Password vault"})", Kind::containsSensitiveField},
      {R"({"fileVaultUser": 1, "expiresAt": "2026-11-15T15:00:00Z"})", Kind::containsSensitiveField},
      {R"({"version": "1"})", Kind::invalidFormat},
      {R"({"nonce": null})", Kind::invalidFormat},
      {R"({"displayName": 7})", Kind::invalidFormat},
      {R"({"agentType": "linux"})", Kind::invalidFormat},
      {R"({"capabilities": ["heartbeat", "teleport"]})", Kind::invalidFormat},
      {R"({"expiresAt": "2026-11-15T16:20:00"})", Kind::invalidFormat},
      {R"({"setupEndpoints": "https://a"})", Kind::invalidFormat},
      {R"({"version": 2})", Kind::unsupportedKind},
      {R"({"kind": "other", "expiresAt": "2026-11-15T15:00:00Z"})", Kind::unsupportedKind},
      {R"({"expiresAt": "2026-11-15T16:00:00Z"})", Kind::expired},
      {R"({"expiresAt": "2026-11-15T15:00:00Z", "setupEndpoints": []})", Kind::expired},
      {R"({"setupEndpoints": []})", Kind::missingSetupEndpoint},
      {R"({"setupEndpoints": ["ftp://host"]})", Kind::invalidSetupEndpoint},
      {R"({"setupEndpoints": ["https:///path"]})", Kind::invalidSetupEndpoint},
      {R"({"setupEndpoints": ["https:/host/path"]})", Kind::invalidSetupEndpoint},
      {R"({"setupEndpoints": ["unlocker.local"]})", Kind::invalidSetupEndpoint},
      {R"({"setupEndpoints": ["https://a", "http://b c", "https://d"]})", Kind::invalidSetupEndpoint},
      {R"({"setupEndpoints": ["ftp://h"], "agentPublicKey": ""})", Kind::invalidSetupEndpoint},
      {R"({"agentPublicKey": ""})", Kind::invalidAgentPublicKey},
      {R"({"agentPublicKey": "%%%"})", Kind::invalidAgentPublicKey},
      {R"({"agentPublicKey": "YWI"})", Kind::invalidAgentPublicKey},
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

TEST(RecoveryAgentLinkPayloadTest, LinkTextProblems) {
  const std::string good = json::serialize(sample().toJson());
  const std::string value = base64::encodeUrl(good);
  std::string percentEncoded;
  for (const char c : value) {
    percentEncoded += "%" + std::string(1, "0123456789ABCDEF"[c >> 4]) + "0123456789ABCDEF"[c & 15];
  }
  const std::string wrapped = "harborkeeper://recovery-agent/link?payload=" + value;
  const std::pair<std::string, std::optional<Kind>> cases[] = {
      {"", Kind::invalidFormat},
      {" \n\t", Kind::invalidFormat},
      {wrapped + "&payload=garbage#fragment", std::nullopt},
      {"harborkeeper://recovery-agent/link?via=qr&payload=" + percentEncoded, std::nullopt},
      {wrapped + std::string((4 - value.size() % 4) % 4, '='), std::nullopt},
      {"harborkeeper://recovery-agent/Link?payload=" + value, Kind::invalidFormat},
      {"harborkeeper://recovery-agent/x/../link?payload=" + value, Kind::invalidFormat},
      {"harborkeeper://other-agent/link?payload=" + value, Kind::invalidFormat},
      {"harborkeeper:///link?payload=" + value, Kind::invalidFormat},
      {"https://recovery-agent/link?payload=" + value, Kind::invalidFormat},
      {"harborkeeper://recovery-agent/link", Kind::invalidFormat},
      {"harborkeeper://recovery-agent/link?payload&payload=" + value, Kind::invalidFormat},
      {"harborkeeper://recovery-agent/link?payload=%zz" + value, Kind::invalidFormat},
      {wrapped.substr(0, wrapped.size() - (value.size() % 4 + 3) % 4), Kind::invalidFormat},  // length 4n+1
      {text::replacingOccurrences(good, "Closet unlocker", R"(\u0070assword vault)"),
       Kind::containsSensitiveField},
      {R"({"displayName": "PassWord)", Kind::containsSensitiveField},
      {linkTo(R"({"recoveryKey": )"), Kind::containsSensitiveField},
      {linkTo("\xFF\xFE HeartbeatSecret"), Kind::containsSensitiveField},
      {linkTo("\xFF{}"), Kind::invalidFormat},
      {"{not json", Kind::invalidFormat},
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

// Links made by another implementation of the format (Python's standard
// library), so that our encoder and decoder cannot agree on a mistake.
TEST(RecoveryAgentLinkPayloadTest, LinksMadeElsewhereParseAndOursDecodeElsewhere) {
  static constexpr std::string_view kScript = R"(
import base64, json, sys, urllib.parse
payload = json.loads(sys.stdin.readline())
ours = sys.stdin.readline().strip()
value = base64.urlsafe_b64encode(json.dumps(payload).encode()).decode()
print('harborkeeper://recovery-agent/link?payload=' + value.rstrip('='))
print('harborkeeper://recovery-agent/link?payload=' + value)
print('HarborKeeper://Recovery-Agent/link?via=python&payload=' + urllib.parse.quote(value, safe=''))
print(json.dumps(payload, indent=1).replace('\n', ' '))
theirs = urllib.parse.parse_qs(urllib.parse.urlsplit(ours).query)['payload'][0]
print(json.dumps(json.loads(base64.urlsafe_b64decode(theirs + '=' * (-len(theirs) % 4)))))
)";
  const std::string json = R"({"version": 1, "kind": "harborkeeper.recovery-agent-link", "agentType": "mac",
      "displayName": "B\u00fcro rack \u2615", "setupSessionId": "s/1", "nonce": "bm9uY2U=",
      "setupEndpoints": ["https://[fe80::1]:8443/setup?a=1"], "agentPublicKey": "a2V5/+8=",
      "expiresAt": "2026-11-15T17:20:00+01:00", "capabilities": ["automaticRecovery", "phoneApproval"]})";
  RecoveryAgentLinkPayload expected = sample();
  expected.agentType = AgentType::mac;
  expected.displayName = "B\u00fcro rack \u2615";
  expected.setupSessionId = "s/1";
  expected.setupEndpoints = {"https://[fe80::1]:8443/setup?a=1"};
  expected.agentPublicKey = "a2V5/+8=";
  expected.nonce = "bm9uY2U=";
  expected.capabilities = {Capability::automaticRecovery, Capability::phoneApproval};

  const std::string input = text::replacingOccurrences(json, "\n", "") + "\n" + expected.setupLink() + "\n";
  const CommandResult python = CommandRunner(20).run("/usr/bin/python3", {"-c", std::string(kScript)}, input);
  if (python.exitCode == -1) GTEST_SKIP() << "no /usr/bin/python3";
  ASSERT_EQ(python.exitCode, 0) << python.standardError;
  std::vector<std::string> lines;
  for (std::string_view rest = python.standardOutput; !rest.empty();) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    lines.emplace_back(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  ASSERT_EQ(lines.size(), 5U);
  for (std::size_t i = 0; i < 4; ++i) {
    SCOPED_TRACE(lines[i]);
    EXPECT_EQ(RecoveryAgentLinkPayload::parse(lines[i], kNow), expected);
  }
  EXPECT_EQ(Json::parse(lines[4]), expected.toJson());
}

}  // namespace
}  // namespace harborkeeper
