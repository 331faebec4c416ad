// DNS-SD for real: two network namespaces joined by a veth pair, each a
// machine with its own host name, D-Bus system bus and avahi-daemon. What
// the built CLI advertises on one is what discover and profile add see on
// the other. Never touches the host's own network, bus or avahi.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/foundation/json.h"
#include "core/platform/command_runner.h"
#include "core/platform/state_file_test_support.h"
#include "core/recovery/harborkeeper_discovery.h"
#include "core/recovery/recovery_profile_store.h"

#include "tests/integration/child_process.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using json::Json;
using ::testing::HasSubstr;

constexpr const char* kIp = "/usr/sbin/ip";
constexpr const char* kScript = HARBORKEEPER_TEST_TOOLS_DIR "/avahi_in_namespace.sh";

const CommandRunner runner(20);

bool fileContains(const fs::path& path, std::string_view text) {
  return contentOf(path).find(text) != std::string::npos;
}

// One machine: the script runs in its namespace with a private /run and host
// name; the CLI joins it with nsenter and reaches its bus through env.
struct Machine {
  // Its network namespace and its host name are both `name`.
  Machine(std::string name, fs::path directory) : dir(std::move(directory)), hostname(std::move(name)) {
    fs::create_directories(dir);
    script = ChildProcess({kIp, "netns", "exec", hostname, "/usr/bin/unshare", "--mount", "--uts",
                           "--propagation", "private", "/bin/sh", kScript, dir.string(), hostname, "hk0"},
                          dir / "machine.log", false);
  }
  ~Machine() { script.stop(SIGTERM); }

  // Empty when avahi-daemon is up; otherwise what the script said.
  std::string waitUntilReady() {
    const fs::path log = dir / "machine.log";
    eventually([&] { return fileContains(log, "ready\n") || script.hasExited(); }, 30s);
    return fileContains(log, "ready\n") ? "" : "avahi in " + hostname + " did not start: " + contentOf(log);
  }
  [[nodiscard]] std::vector<std::string> cli(std::vector<std::string> arguments) const {
    const std::string bus = "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + (dir / "bus").string();
    arguments.insert(arguments.begin(),
                     {"/usr/bin/nsenter", "--target", contentOf(dir / "pid"), "--net", "--uts", "--mount",
                      "--", "/usr/bin/env", bus, HARBORKEEPER_CLI_BIN});
    return arguments;
  }
  [[nodiscard]] CommandResult run(const std::vector<std::string>& arguments) const {
    const std::vector<std::string> argv = cli(arguments);
    return runner.run(argv.front(), {argv.begin() + 1, argv.end()});
  }

  const fs::path dir;
  const std::string hostname;
  ChildProcess script;
};

// Two namespaces joined by veth "hk0", 10.77.0.1/24 in the advertiser's and .2
// in the browser's, deleted afterwards whatever happened.
class DiscoveryNetnsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: it creates network namespaces";
    const CommandResult pair = runner.run(
        "/bin/sh", {"-xec",
                    "PATH=/usr/sbin:/usr/bin; ip netns add $0; ip netns add $1\n"
                    "ip -n $0 link add hk0 type veth peer name hk0 netns $1\n"
                    "ip -n $0 addr add 10.77.0.1/24 dev hk0; ip -n $1 addr add 10.77.0.2/24 dev hk0\n"
                    "ip -n $0 link set hk0 up multicast on; ip -n $1 link set hk0 up multicast on",
                    prefix_ + "a", prefix_ + "b"});
    if (pair.exitCode != 0) GTEST_SKIP() << "network namespaces could not be set up: " << pair.standardError;
    advertiser_ = std::make_unique<Machine>(prefix_ + "a", temporary_.path() / "a");
    browser_ = std::make_unique<Machine>(prefix_ + "b", temporary_.path() / "b");
    for (Machine* machine : {advertiser_.get(), browser_.get()}) {
      if (const std::string failure = machine->waitUntilReady(); !failure.empty()) GTEST_SKIP() << failure;
    }
  }
  void TearDown() override {
    advertiser_.reset();
    browser_.reset();
    for (const char* side : {"a", "b"}) runner.run(kIp, {"netns", "del", prefix_ + side});
  }

  const std::string prefix_ = "hkdisc" + std::to_string(::getpid());
  const TemporaryDirectory temporary_;
  std::unique_ptr<Machine> advertiser_;
  std::unique_ptr<Machine> browser_;
};

const Json& byPort(const Json& list, int port) {
  for (const Json& candidate : list) {
    if (candidate.at("port") == port) return candidate;
  }
  throw std::runtime_error("no candidate on port " + std::to_string(port) + " in " + list.dump());
}

TEST_F(DiscoveryNetnsTest, AdvertisedOnOneMachineFoundOnTheOther) {
  const auto advertise = [&](const std::string& port, const std::string& session, const fs::path& log) {
    ChildProcess process(advertiser_->cli({"advertise", "--port", port, "--pairing-session", session}), log,
                         false);
    EXPECT_TRUE(eventually([&] { return fileContains(log, "Advertising"); }, 15s)) << contentOf(log);
    return process;
  };
  const fs::path logs[] = {temporary_.path() / "clean.log", temporary_.path() / "flagged.log"};
  ChildProcess advertisers[] = {advertise("2222", "S1", logs[0]), advertise("2223", "unlock-code", logs[1])};
  ASSERT_FALSE(HasFailure());
  // Same name on the same machine: renamed as the platform does.
  EXPECT_THAT(contentOf(logs[1]), HasSubstr("Warning: other machines will flag this advertisement"));
  EXPECT_THAT(contentOf(logs[1]), HasSubstr("Advertising \"Harborkeeper (2)\""));

  const std::string host = advertiser_->hostname + ".local";
  const CommandResult found = browser_->run({"discover", "--timeout", "3", "--json"});
  ASSERT_EQ(found.exitCode, 0) << found.standardError;
  const Json list = json::parse(found.standardOutput);
  ASSERT_EQ(list.size(), 2U) << found.standardOutput;
  const Json& clean = byPort(list, 2222);
  EXPECT_EQ(clean.at("serviceName"), "Harborkeeper");
  EXPECT_EQ(clean.at("normalizedHostname"), host);
  EXPECT_EQ(clean.at("txtRecord"), Json(HarborkeeperDiscovery::advertisedTXTRecord(
                                       "Harborkeeper", "com.lumaq.Harborkeeper", host, "S1")));
  EXPECT_EQ(clean.at("isPairingWindowOpen"), true);
  const Json& addresses = clean.at("lastKnownLocalIPs");
  ASSERT_FALSE(addresses.empty());
  EXPECT_EQ(addresses.front(), "10.77.0.1");  // IPv4 first
  for (const auto& address : addresses.get<std::vector<std::string>>()) {
    EXPECT_TRUE(!address.starts_with("fe80:") || address.ends_with("%hk0")) << address;
  }
  const Json& flagged = byPort(list, 2223);
  EXPECT_EQ(flagged.at("flagged"), true);
  EXPECT_FALSE(flagged.contains("txtRecord")) << "a flagged record is not repeated";

  const std::string shown = browser_->run({"discover", "--timeout", "3"}).standardOutput;
  EXPECT_THAT(shown, HasSubstr(":2222\t10.77.0.1"));
  EXPECT_THAT(shown, HasSubstr("(advertised as \"Harborkeeper (2)\")\t" + host + ":2223"));
  EXPECT_EQ(linesContaining(shown, "[flagged: its record mentions a credential]"), 1U);
  EXPECT_EQ(linesContaining(shown, "pairing session S1"), 1U);

  const std::string profiles = (temporary_.path() / "profiles.json").string();
  const auto add = [&](std::vector<std::string> options) {
    options.insert(options.begin(), {"--profiles", profiles, "profile", "add", "--user", "ana"});
    return browser_->run(options);
  };
  EXPECT_EQ(add({"--name", "Found", "--from-discovery", "harborkeeper"}).exitCode, 0);
  const CommandResult given = add({"--name", "Given", "--host", "given.local", "--port", "2200", "--ip",
                                   "10.9.9.9", "--from-discovery", "Harborkeeper"});
  EXPECT_EQ(given.exitCode, 0) << given.standardError;
  const CommandResult refused = add({"--name", "Flagged", "--from-discovery", "Harborkeeper (2)"});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_EQ(refused.standardError,
            "harborkeeper: The machine advertised as Harborkeeper (2) is flagged: its record mentions a "
            "credential. No profile is made from it.");
  const auto stored = RecoveryProfileStore(profiles).load();
  ASSERT_EQ(stored.size(), 2U);
  EXPECT_EQ(stored[0].localHostname, host);
  EXPECT_EQ(stored[0].sshPort, 2222);
  EXPECT_EQ(Json(stored[0].lastKnownLocalIPs), addresses);
  EXPECT_EQ(stored[0].lastPairingSessionIdentifier, "S1");
  EXPECT_EQ(stored[1].localHostname, "given.local");
  EXPECT_EQ(stored[1].sshPort, 2200);
  EXPECT_EQ(stored[1].lastKnownLocalIPs, std::vector<std::string>{"10.9.9.9"});

  // SIGTERM withdraws: the other machine stops seeing it.
  for (int i = 0; i < 2; ++i) {
    const int status = advertisers[i].stop(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_THAT(contentOf(logs[i]), HasSubstr("Stopped advertising."));
  }
  const auto nothingFound = [&] {
    return browser_->run({"discover", "--timeout", "1", "--json"}).standardOutput == "[]";
  };
  EXPECT_TRUE(eventually(nothingFound, 10s));
}

// Without a reachable avahi-daemon every command that needs it says so at
// once and exits 1; nothing waits for the time it was given.
TEST(DiscoveryWithoutServiceTest, CommandsFailAtOnceWithTheReason) {
  const TemporaryDirectory temporary;
  const std::string profiles = (temporary.path() / "profiles.json").string();
  const std::vector<std::string> commands[] = {
      {"discover", "--timeout", "30"},
      {"advertise", "--for", "30"},
      {"--profiles", profiles, "profile", "add", "--name", "N", "--user", "u", "--from-discovery", "Studio"},
  };
  for (const auto& command : commands) {
    SCOPED_TRACE(command.front());
    std::vector<std::string> arguments = {
        "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + (temporary.path() / "no-bus").string(), HARBORKEEPER_CLI_BIN};
    arguments.insert(arguments.end(), command.begin(), command.end());
    const auto start = std::chrono::steady_clock::now();
    const CommandResult result = runner.run("/usr/bin/env", arguments);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.standardError,
              "harborkeeper: The local DNS-SD service is not available: avahi-daemon could not be reached "
              "(DNS-SD error -65537).");
  }
  EXPECT_FALSE(fs::exists(profiles));
}

}  // namespace
}  // namespace harborkeeper
