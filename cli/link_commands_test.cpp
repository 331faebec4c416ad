#include "cli/link_commands.h"

#include <gtest/gtest.h>

#include "cli/cli_test_support.h"
#include "core/platform/state_file_test_support.h"

namespace harborkeeper::cli {
namespace {

using testing_support::TemporaryDirectory;
using testing_support::writeRaw;

using testing_support::CliRun;
using testing_support::run;

TEST(LinkCommandsTest, ResultsGoToStandardOutputAndRefusalsToStandardError) {
  const RecoveryAgentLinkPayload payload{
      .displayName = "Closet \x1B[2Junlocker",
      .setupSessionId = "s-1",
      .setupEndpoints = {"https://unlocker.local:8443/setup", "http://10.0.0.9/"},
      .agentPublicKey = "a2V5",
      .nonce = "bm9uY2U=",
      .expiresAt =
          std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now() + std::chrono::hours(1)),
      .capabilities = {Capability::heartbeat, Capability::phoneApproval}};
  const std::string link = payload.setupLink();
  const TemporaryDirectory directory;
  const auto good = (directory.path() / "good.json").string();
  const auto bad = (directory.path() / "bad.json").string();
  const auto missing = (directory.path() / "missing.json").string();
  writeRaw(good, json::serializePretty(payload.toJson()));
  writeRaw(bad, "{}");

  struct Case {
    std::vector<const char*> arguments;
    std::string out, error;
  };
  const Case cases[] = {
      {{"link", "parse", link.c_str()},
       "Name: Closet ?[2Junlocker\nType: docker\nSetup endpoint: https://unlocker.local:8443/setup\n"
       "Setup endpoint: http://10.0.0.9/\nCapabilities: heartbeat, phoneApproval\nExpires: " +
           date_time::formatInternetDateTime(payload.expiresAt) + "\n",
       ""},
      {{"link", "make", good.c_str()}, link + "\n", ""},
      {{"link", "parse", "harborkeeper://recovery-agent/Link?payload=e30"},
       "",
       "Recovery agent link is not valid."},
      {{"link", "make", bad.c_str()}, "", "Recovery agent link is not valid."},
      {{"link", "make", missing.c_str()}, "", "Could not read " + missing + ": No such file or directory."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments.back());
    const CliRun result = run(c.arguments);
    EXPECT_EQ(result.status, c.error.empty() ? 0 : 1);
    EXPECT_EQ(result.out, c.out);
    EXPECT_EQ(result.err, c.error.empty() ? "" : "harborkeeper: " + c.error + "\n");
  }
  EXPECT_EQ(json::parse(run({"link", "parse", "--json", link.c_str()}).out), payload.toJson());
}

}  // namespace
}  // namespace harborkeeper::cli
