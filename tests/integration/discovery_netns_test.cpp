// DNS-SD for real: two network namespaces joined by a veth pair, each a
// machine with its own host name, D-Bus system bus and avahi-daemon. What
// the built CLI advertises on one is what discover and profile add see on
// the other. Never touches the host's own network, bus or avahi.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <sstream>

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
constexpr const char* kUnshare = "/usr/bin/unshare";
constexpr const char* kNsenter = "/usr/bin/nsenter";
constexpr const char* kScript = HARBORKEEPER_TEST_TOOLS_DIR "/avahi_in_namespace.sh";
constexpr const char* kUnavailable =
    "harborkeeper: The local DNS-SD service is not available: avahi-daemon could not be reached (DNS-SD "
    "error "
    "-65537).";

const CommandRunner& runner() {
  static const CommandRunner instance(20);
  return instance;
}

bool fileContains(const fs::path& path, std::string_view text) {
  return contentOf(path).find(text) != std::string::npos;
}

// Two namespaces joined by veth "hk0": 10.77.0.1/24 in the first, .2 in the
// second. Both are deleted on destruction, whatever happened.
class NamespacePair final {
 public:
  explicit NamespacePair(const std::string& prefix) : names_{prefix + "-a", prefix + "-b"} {}
  NamespacePair(const NamespacePair&) = delete;
  NamespacePair& operator=(const NamespacePair&) = delete;
  ~NamespacePair() {
    for (const std::string& name : created_) runner().run(kIp, {"netns", "del", name});
  }

  // Empty when the pair is up; otherwise the command that failed and why.
  std::string setUp() {
    const auto& [a, b] = names_;
    const std::vector<std::vector<std::string>> steps = {
        {"netns", "add", a},
        {"netns", "add", b},
        {"-n", a, "link", "add", "hk0", "type", "veth", "peer", "name", "hk0", "netns", b},
        {"-n", a, "addr", "add", "10.77.0.1/24", "dev", "hk0"},
        {"-n", b, "addr", "add", "10.77.0.2/24", "dev", "hk0"},
        {"-n", a, "link", "set", "hk0", "up", "multicast", "on"},
        {"-n", b, "link", "set", "hk0", "up", "multicast", "on"},
    };
    for (const auto& step : steps) {
      const CommandResult result = runner().run(kIp, step);
      if (step[0] == "netns" && result.exitCode == 0) created_.push_back(step[2]);
      if (result.exitCode != 0) {
        std::string command = "ip";
        for (const std::string& argument : step) command += " " + argument;
        return command + ": " + result.standardError;
      }
    }
    return {};
  }
  [[nodiscard]] const std::string& first() const { return names_.first; }
  [[nodiscard]] const std::string& second() const { return names_.second; }

 private:
  std::pair<std::string, std::string> names_;
  std::vector<std::string> created_;
};

// One machine: the script runs in the namespace with a private /run and host
// name; the CLI joins it with nsenter and finds its bus through the
// environment.
class Machine final {
 public:
  Machine(const std::string& netns, fs::path dir, std::string hostname)
      : dir_(std::move(dir)), hostname_(std::move(hostname)) {
    fs::create_directories(dir_);
    process_ = ChildProcess({kIp, "netns", "exec", netns, kUnshare, "--mount", "--uts", "--propagation",
                             "private", "/bin/sh", kScript, dir_.string(), hostname_, "hk0"},
                            (dir_ / "machine.log").string(), false);
  }
  Machine(const Machine&) = delete;
  Machine& operator=(const Machine&) = delete;
  ~Machine() { process_.stop(SIGTERM); }

  // Empty when avahi-daemon is up; otherwise what the script said.
  std::string waitUntilReady() {
    const fs::path log = dir_ / "machine.log";
    eventually([&] { return fileContains(log, "ready\n") || process_.hasExited(); }, 30s);
    if (fileContains(log, "ready\n")) return {};
    return "avahi in namespace " + hostname_ + " did not start: " + contentOf(log);
  }

  [[nodiscard]] std::string localName() const { return hostname_ + ".local"; }

  [[nodiscard]] std::vector<std::string> cli(const std::vector<std::string>& arguments) const {
    std::vector<std::string> argv = {kNsenter,
                                     "--target",
                                     text(dir_ / "pid"),
                                     "--net",
                                     "--uts",
                                     "--mount",
                                     "--",
                                     "/usr/bin/env",
                                     "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + (dir_ / "bus").string(),
                                     HARBORKEEPER_CLI_BIN};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return argv;
  }

  [[nodiscard]] CommandResult run(const std::vector<std::string>& arguments) const {
    std::vector<std::string> argv = cli(arguments);
    const std::string executable = argv.front();
    argv.erase(argv.begin());
    return runner().run(executable, argv);
  }

 private:
  static std::string text(const fs::path& path) {
    std::string content = contentOf(path);
    content.erase(std::remove(content.begin(), content.end(), '\n'), content.end());
    return content;
  }

  fs::path dir_;
  std::string hostname_;
  ChildProcess process_;
};

class DiscoveryNetnsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: it creates network namespaces";
    for (const char* tool : {kIp, kUnshare, kNsenter, "/usr/sbin/avahi-daemon", "/usr/bin/dbus-daemon",
                             "/usr/bin/setpriv", "/usr/bin/hostname"}) {
      if (!fs::exists(tool)) GTEST_SKIP() << "needs " << tool;
    }
    if (const std::string failure = namespaces_.setUp(); !failure.empty()) {
      GTEST_SKIP() << "network namespaces could not be set up: " << failure;
    }
    advertiser_ = std::make_unique<Machine>(namespaces_.first(), temporary_.path() / "a", prefix_ + "a");
    browser_ = std::make_unique<Machine>(namespaces_.second(), temporary_.path() / "b", prefix_ + "b");
    for (Machine* machine : {advertiser_.get(), browser_.get()}) {
      if (const std::string failure = machine->waitUntilReady(); !failure.empty()) GTEST_SKIP() << failure;
    }
  }

  const std::string prefix_ = "hkdisc" + std::to_string(::getpid());
  const TemporaryDirectory temporary_;
  NamespacePair namespaces_{prefix_};
  std::unique_ptr<Machine> advertiser_;  // destroyed before the namespaces
  std::unique_ptr<Machine> browser_;
};

const Json& byPort(const Json& list, int port) {
  for (const Json& candidate : list) {
    if (candidate.at("port") == port) return candidate;
  }
  throw std::runtime_error("no candidate on port " + std::to_string(port) + " in " + list.dump());
}

void expectAddressesOfTheAdvertiser(const Json& addresses) {
  ASSERT_FALSE(addresses.empty());
  EXPECT_EQ(addresses.front(), "10.77.0.1");  // IPv4 first
  for (const Json& address : addresses) {
    const auto text = address.get<std::string>();
    if (text.starts_with("fe80:")) {
      EXPECT_THAT(text, HasSubstr("%hk0")) << "a link-local address needs its interface";
    }
  }
}

TEST_F(DiscoveryNetnsTest, AdvertisedOnOneMachineFoundOnTheOther) {
  const fs::path cleanLog = temporary_.path() / "clean.log";
  const fs::path flaggedLog = temporary_.path() / "flagged.log";
  ChildProcess clean(
      advertiser_->cli({"advertise", "--for", "120", "--port", "2222", "--pairing-session", "S1"}), cleanLog,
      false);
  ASSERT_TRUE(eventually([&] { return fileContains(cleanLog, "Advertising"); }, 15s)) << contentOf(cleanLog);
  // Same name on the same machine: renamed as the platform does.
  ChildProcess flagged(
      advertiser_->cli({"advertise", "--for", "120", "--port", "2223", "--pairing-session", "unlock-code"}),
      flaggedLog, false);
  ASSERT_TRUE(eventually([&] { return fileContains(flaggedLog, "Advertising"); }, 15s))
      << contentOf(flaggedLog);
  EXPECT_THAT(contentOf(flaggedLog), HasSubstr("Warning: other machines will flag this advertisement"));
  EXPECT_THAT(contentOf(flaggedLog), HasSubstr("Advertising \"Harborkeeper (2)\""));

  const CommandResult found = browser_->run({"discover", "--timeout", "3", "--json"});
  ASSERT_EQ(found.exitCode, 0) << found.standardError;
  const Json list = json::parse(found.standardOutput);
  ASSERT_EQ(list.size(), 2U) << found.standardOutput;
  const Json& first = byPort(list, 2222);
  EXPECT_EQ(first.at("serviceName"), "Harborkeeper");
  EXPECT_EQ(first.at("normalizedHostname"), advertiser_->localName());
  EXPECT_EQ(first.at("flagged"), false);
  EXPECT_EQ(first.at("txtRecord"),
            Json(HarborkeeperDiscovery::advertisedTXTRecord("Harborkeeper", "com.lumaq.Harborkeeper",
                                                            advertiser_->localName(), "S1")));
  EXPECT_EQ(first.at("isPairingWindowOpen"), true);
  expectAddressesOfTheAdvertiser(first.at("lastKnownLocalIPs"));
  const Json& second = byPort(list, 2223);
  EXPECT_EQ(second.at("serviceName"), "Harborkeeper (2)");
  EXPECT_EQ(second.at("flagged"), true);
  EXPECT_FALSE(second.contains("txtRecord")) << "a flagged record is not repeated";

  const CommandResult shown = browser_->run({"discover", "--timeout", "3"});
  EXPECT_THAT(shown.standardOutput, HasSubstr(":2222\t10.77.0.1"));
  EXPECT_THAT(shown.standardOutput,
              HasSubstr("(advertised as \"Harborkeeper (2)\")\t" + advertiser_->localName() + ":2223"));
  EXPECT_EQ(linesContaining(shown.standardOutput, "[flagged: its record mentions a credential]"), 1U);
  EXPECT_EQ(linesContaining(shown.standardOutput, "pairing session S1"), 1U);

  const std::string profiles = (temporary_.path() / "profiles.json").string();
  const auto add = [&](std::vector<std::string> options) {
    options.insert(options.begin(), {"--profiles", profiles, "profile", "add", "--user", "ana"});
    return browser_->run(options);
  };
  EXPECT_EQ(add({"--name", "Found", "--from-discovery", "harborkeeper"}).exitCode, 0);
  EXPECT_EQ(add({"--name", "Given", "--host", "given.local", "--port", "2200", "--ip", "10.9.9.9",
                 "--from-discovery", "Harborkeeper"})
                .exitCode,
            0);
  const CommandResult refused = add({"--name", "Flagged", "--from-discovery", "Harborkeeper (2)"});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_EQ(refused.standardError,
            "harborkeeper: The machine advertised as Harborkeeper (2) is flagged: its record mentions a "
            "credential. No profile is made from it.");
  const auto stored = RecoveryProfileStore(profiles).load();
  ASSERT_EQ(stored.size(), 2U);
  EXPECT_EQ(stored[0].localHostname, advertiser_->localName());
  EXPECT_EQ(stored[0].sshPort, 2222);
  EXPECT_EQ(stored[0].lastKnownLocalIPs.front(), "10.77.0.1");
  EXPECT_EQ(stored[0].lastPairingSessionIdentifier, "S1");
  EXPECT_EQ(stored[1].localHostname, "given.local");
  EXPECT_EQ(stored[1].sshPort, 2200);
  EXPECT_EQ(stored[1].lastKnownLocalIPs, std::vector<std::string>{"10.9.9.9"});

  // SIGTERM withdraws: the other machine stops seeing it.
  for (const auto& [process, log] : {std::pair{&clean, &cleanLog}, std::pair{&flagged, &flaggedLog}}) {
    const int status = process->stop(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_THAT(contentOf(*log), HasSubstr("Stopped advertising."));
  }
  EXPECT_TRUE(eventually(
      [&] {
        return browser_->run({"discover", "--timeout", "1", "--json"}).standardOutput == "[]";
      },
      10s));
}

// Without a reachable avahi-daemon every command that needs it says so at
// once and exits 1; nothing waits for the time it was given.
TEST(DiscoveryWithoutServiceTest, CommandsFailAtOnceWithTheReason) {
  const TemporaryDirectory temporary;
  const std::string bus = "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + (temporary.path() / "no-bus").string();
  const std::string profiles = (temporary.path() / "profiles.json").string();
  const std::vector<std::string> commands[] = {
      {"discover", "--timeout", "30"},
      {"advertise", "--for", "30"},
      {"--profiles", profiles, "profile", "add", "--name", "N", "--user", "u", "--from-discovery", "Studio"},
  };
  for (const auto& command : commands) {
    SCOPED_TRACE(command.front());
    std::vector<std::string> arguments = {bus, HARBORKEEPER_CLI_BIN};
    arguments.insert(arguments.end(), command.begin(), command.end());
    const auto start = std::chrono::steady_clock::now();
    const CommandResult result = runner().run("/usr/bin/env", arguments);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.standardError, kUnavailable);
  }
  EXPECT_FALSE(fs::exists(profiles));
}

}  // namespace
}  // namespace harborkeeper
