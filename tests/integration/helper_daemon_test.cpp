// The real daemon on its socket, driven by the real CLI.
#include <signal.h>
#include <sys/wait.h>

#include <fstream>

#include <gtest/gtest.h>

#include "core/foundation/json.h"
#include "core/platform/boot_time.h"
#include "core/protection/protection_status_store.h"

#include "tests/integration/daemon_harness.h"

namespace harborkeeper {
namespace {

using namespace testing_support;

constexpr char kAliceUuid[] = "5B6C1E8A-0F5E-4E2B-9C1D-3A2B1C0D9E8F";

// The CLI's failure line on standard error: its name, then the message.
std::string failureLine(std::string_view message) { return "harborkeeper: " + std::string(message); }

// What every run of the CLI is compared by.
struct CliOutcome {
  std::int32_t exitCode;
  std::string standardOutput;
  std::string standardError;
  bool operator==(const CliOutcome&) const = default;
};

void PrintTo(const CliOutcome& outcome, std::ostream* out) {
  *out << "exit " << outcome.exitCode << ", stdout \"" << outcome.standardOutput << "\", stderr \""
       << outcome.standardError << "\"";
}

CliOutcome run(const DaemonHarness& daemon, const std::vector<std::string>& arguments) {
  const CommandResult result = daemon.cli(arguments);
  return {result.exitCode, result.standardOutput, result.standardError};
}

json::Json parsedOrNull(const std::string& text) {
  try {
    return json::parse(text);
  } catch (const json::DecodeError&) {
    return nullptr;
  }
}

const json::Json kTwoUsers = {
    {"users", {{{"displayName", "alice"}, {"uuid", kAliceUuid}}, {{"displayName", "bob"}}}}};

TEST_F(DaemonTest, VersionAnswersOverTheSocketAndTheCli) {
  const DaemonHarness& daemon = startDaemon();
  EXPECT_EQ(daemon.client()->helperVersion(), "1.3");
  EXPECT_EQ(run(daemon, {"version"}), (CliOutcome{0, "1.3", ""}));

  const CommandResult unreachable = CommandRunner(30).run(
      DaemonHarness::builtCli(), {"--socket", (daemon.directory() / "absent.sock").string(), "version"});
  EXPECT_EQ(unreachable.exitCode, 3) << unreachable.standardError;
}

TEST_F(DaemonTest, UsersComeFromTheToolRunWithOnlyItsArgumentAndNoEnvironment) {
  const DaemonHarness& daemon = startDaemon();
  EXPECT_EQ(run(daemon, {"users"}), (CliOutcome{0, std::string("alice ") + kAliceUuid + "\nbob", ""}));
  const CliOutcome asJson = run(daemon, {"users", "--json"});
  EXPECT_EQ(asJson.exitCode, 0) << asJson.standardError;
  EXPECT_EQ(parsedOrNull(asJson.standardOutput), kTwoUsers) << asJson.standardOutput;
  // The stand-in refuses other arguments and any environment but the shell's own PWD.
  EXPECT_EQ(daemon.toolInvocations(), "list\nlist\n");
}

TEST_F(DaemonTest, UsersReplyIsABinaryPropertyListPythonReadsAlike) {
  if (std::string_view(HARBORKEEPER_PYTHON3).front() != '/') GTEST_SKIP() << "python3 was not found";
  const DaemonHarness& daemon = startDaemon();
  const std::optional<Bytes> data = daemon.client()->fileVaultUsersData();
  ASSERT_TRUE(data.has_value());
  const fs::path file = daemon.directory() / "users.plist";
  std::ofstream(file, std::ios::binary) << asStringView(*data);

  const CommandResult decoded = CommandRunner(30).run(
      HARBORKEEPER_PYTHON3, {std::string(HARBORKEEPER_TEST_TOOLS_DIR) + "/decode_plist.py", file.string()});
  ASSERT_EQ(decoded.exitCode, 0) << decoded.standardError;
  EXPECT_EQ(parsedOrNull(decoded.standardOutput), kTwoUsers) << decoded.standardOutput;
}

TEST_F(DaemonTest, UnavailableUsersAreAFailureWithTheGenericDetail) {
  const DaemonHarness& daemon = startDaemon({.fdesetup = "fdesetup_fails_silently.sh"});
  EXPECT_EQ(run(daemon, {"users"}),
            (CliOutcome{1, "", failureLine("Harborkeeper could not list FileVault-enabled users.")}));
  const CliOutcome asJson = run(daemon, {"users", "--json"});
  EXPECT_EQ(asJson.exitCode, 1);
  EXPECT_EQ(parsedOrNull(asJson.standardOutput),
            (json::Json{{"users", json::Json::array()},
                        {"unavailableReason", "fdesetup list failed with exit code 1."}}))
      << asJson.standardOutput;
  EXPECT_EQ(daemon.toolInvocations(), "list\nlist\n");  // the tool ran and failed, rather than not starting
}

TEST_F(DaemonTest, StatusShowsTheRecordTheStoreWrote) {
  const DaemonHarness& daemon = startDaemon();
  for (const char* format : {"", "--json"}) {
    SCOPED_TRACE(format);
    std::vector<std::string> arguments{"status"};
    if (*format != '\0') arguments.emplace_back(format);
    EXPECT_EQ(run(daemon, arguments), (CliOutcome{1, "", failureLine("No protection status is recorded.")}));
  }

  // Whole seconds: the record keeps no fraction.
  const Date armedAt =
      date_time::fromSecondsSince1970(double(date_time::secondsSince1970(std::chrono::system_clock::now())));
  ASSERT_GT(armedAt, BootTime::currentBootDate());
  const HelperProtectionStatus status{HelperProtectionMode::nextRestart, true, armedAt,
                                      "Armed. The next restart unlocks FileVault once."};
  ProtectionStatusStore(daemon.stateDirectory(), 0).store(status);

  EXPECT_EQ(HelperProtectionStatus::decode(asStringView(daemon.client()->protectionStatusData().value())),
            status);
  EXPECT_EQ(run(daemon, {"status"}),
            (CliOutcome{0,
                        "Protected for the next restart\n" + status.message + "\nAttempted at " +
                            date_time::formatInternetDateTime(armedAt) + " (next restart)",
                        ""}));
  const CliOutcome asJson = run(daemon, {"status", "--json"});
  EXPECT_EQ(asJson.exitCode, 0) << asJson.standardError;
  EXPECT_TRUE(parsedOrNull(asJson.standardOutput).is_object()) << asJson.standardOutput;
}

TEST_F(DaemonTest, TerminationSignalsExitCleanlyAndRemoveTheSocket) {
  for (const auto& [signal, name] : {std::pair(SIGTERM, "SIGTERM"), std::pair(SIGINT, "SIGINT")}) {
    SCOPED_TRACE(name);
    DaemonHarness& daemon = startDaemon();
    const auto connected = daemon.client();  // an open connection must not hold the daemon up
    ASSERT_EQ(connected->helperVersion(), "1.3");
    const int status = daemon.signalAndWait(signal);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status << "\n"
                                                               << daemon.log();
    EXPECT_FALSE(fs::exists(daemon.socketPath()));
    EXPECT_THROW(connected->helperVersion(), ipc::HelperClientError);
  }
}

}  // namespace
}  // namespace harborkeeper
