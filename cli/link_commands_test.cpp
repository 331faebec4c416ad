#include "cli/link_commands.h"

#include <sstream>

#include <gtest/gtest.h>

#include "cli/cli_app.h"
#include "core/platform/state_file_test_support.h"

namespace harborkeeper::cli {
namespace {

using testing_support::TemporaryDirectory;
using testing_support::writeRaw;

struct CliRun {
  int status;
  std::string out, err;
};

CliRun run(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "harborkeeper");
  std::ostringstream out;
  std::ostringstream err;
  const int status = runCli(static_cast<int>(arguments.size()), arguments.data(), out, err);
  return {status, out.str(), err.str()};
}

RecoveryAgentLinkPayload payloadExpiringIn(std::chrono::seconds validity) {
  return {.displayName = "Closet \x1B[2Junlocker",
          .setupSessionId = "s-1",
          .setupEndpoints = {"https://unlocker.local:8443/setup", "http://10.0.0.9/"},
          .agentPublicKey = "a2V5",
          .nonce = "bm9uY2U=",
          .expiresAt = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now() + validity),
          .capabilities = {Capability::heartbeat, Capability::phoneApproval}};
}

TEST(LinkCommandsTest, ParseShowsTheLinkOrItsError) {
  const RecoveryAgentLinkPayload payload = payloadExpiringIn(std::chrono::hours(1));
  const std::string link = payload.setupLink();
  const CliRun shown = run({"link", "parse", link.c_str()});
  EXPECT_EQ(shown.status, 0) << shown.err;
  EXPECT_EQ(shown.out,
            "Name: Closet ?[2Junlocker\nType: docker\nSetup endpoint: https://unlocker.local:8443/setup\n"
            "Setup endpoint: http://10.0.0.9/\nCapabilities: heartbeat, phoneApproval\nExpires: " +
                date_time::formatInternetDateTime(payload.expiresAt) + "\n");
  const CliRun json = run({"link", "parse", "--json", link.c_str()});
  EXPECT_EQ(json::parse(json.out), payload.toJson());

  const std::string expired = payloadExpiringIn(std::chrono::hours(-1)).setupLink();
  const std::pair<std::string, std::string> failures[] = {
      {expired, "Recovery agent link has expired."},
      {"harborkeeper://recovery-agent/Link?payload=e30", "Recovery agent link is not valid."},
  };
  for (const auto& [text, message] : failures) {
    const CliRun refused = run({"link", "parse", text.c_str()});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "harborkeeper: " + message + "\n");
    EXPECT_EQ(refused.out, "");
  }
}

TEST(LinkCommandsTest, MakeChecksThePayloadFile) {
  const TemporaryDirectory directory;
  const auto file = (directory.path() / "payload.json").string();
  const RecoveryAgentLinkPayload payload = payloadExpiringIn(std::chrono::hours(1));
  writeRaw(file, json::serializePretty(payload.toJson()));
  const CliRun made = run({"link", "make", file.c_str()});
  EXPECT_EQ(made.status, 0) << made.err;
  EXPECT_EQ(made.out, payload.setupLink() + "\n");

  json::Json withoutNonce = payload.toJson();
  withoutNonce["nonce"] = "";
  writeRaw(file, json::serialize(withoutNonce));
  EXPECT_EQ(run({"link", "make", file.c_str()}).err,
            "harborkeeper: Recovery agent link contains an invalid setup nonce.\n");
  const auto missing = (directory.path() / "missing.json").string();
  EXPECT_EQ(run({"link", "make", missing.c_str()}).err,
            "harborkeeper: Could not read " + missing + ": No such file or directory.\n");
}

}  // namespace
}  // namespace harborkeeper::cli
