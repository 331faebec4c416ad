// Clients the daemon must not serve: refused at accept, before any request is read.
#include <gtest/gtest.h>

#include "tests/integration/daemon_harness.h"

namespace harborkeeper {
namespace {

using namespace testing_support;

TEST_F(DaemonTest, UntrustedCliCopiesGetNoReplyAndReachNothing) {
  DaemonHarness& daemon = startDaemon();
  const fs::path cli = DaemonHarness::builtCli();
  const std::string unlisted =
      copyExecutable(cli, daemon.directory() / "unlisted", "harborkeeper", fs::perms(0755));
  const std::string listed =
      copyExecutable(cli, daemon.directory() / "listed", "harborkeeper", fs::perms(0755));
  daemon.registerClients({listed});

  // The listed copy is served while it is safe, so only its mode differs below.
  const CommandResult served = daemon.cli({"version"}, listed);
  ASSERT_EQ(served.exitCode, 0) << served.standardError << "\n" << daemon.log();
  fs::permissions(listed, fs::perms(0775));

  std::size_t refused = 0;
  for (const std::string& executable : {unlisted, listed}) {
    SCOPED_TRACE(executable);
    for (const char* command : {"users", "version"}) {
      SCOPED_TRACE(command);
      const CommandResult result = daemon.cli({command}, executable);
      EXPECT_EQ(result.exitCode, 3) << result.standardError;
      EXPECT_EQ(result.standardOutput, "");
      EXPECT_TRUE(eventually([&] { return daemon.logLines("Refused a client") == refused + 1; }))
          << daemon.log();
      ++refused;
    }
  }
  EXPECT_EQ(daemon.toolInvocations(), "");

  // The stand-in does record what does reach it.
  EXPECT_EQ(daemon.cli({"users"}).exitCode, 0);
  EXPECT_EQ(daemon.toolInvocations(), "list\n");
  EXPECT_EQ(daemon.logLines("Refused a client"), refused);
}

}  // namespace
}  // namespace harborkeeper
