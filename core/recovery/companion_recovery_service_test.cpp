#include "core/recovery/companion_recovery_service.h"

#include <sys/stat.h>

#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace harborkeeper {
namespace {

using State = CompanionUnlockState;
using Service = CompanionRecoveryService;
using Policy = RecoveryHostKeyTrustPolicy;
namespace fs = std::filesystem;

const std::string kSsh = "/usr/bin/ssh";
const std::string kKeyscan = "/usr/bin/ssh-keyscan";
const std::string kKeygen = "/usr/bin/ssh-keygen";
const std::string kNotVerified = "Could not verify the SSH host key.";
const std::string kUnclear = "Mac responded, but the recovery state is unclear.";
const std::string kLockedOut = "This system is locked. To unlock it, use a local account name and password.";
const CommandResult kRefused{"", "ssh: connect to host h1 port 22: Connection refused", 255, false};

std::string keyLine(const std::string& host) { return host + " ssh-ed25519 AAAAC3NzaC1lZDI1NTE5" + host; }
CommandResult says(std::string output, int exitCode = 255) {
  return {std::move(output), "", exitCode, false};
}

struct Call {
  std::string tool;
  std::vector<std::string> arguments;
  std::optional<std::string> input;
  double timeout = 0;
  std::string knownHostsPath, knownHosts;  // its text and mode while the tool ran
  fs::perms knownHostsMode = fs::perms::none;
};

// Tools answering from a table. Replies per (tool, subject) are given out in
// order, the last repeating. The subject: ssh's "user@host", ssh-keygen's first
// input word, else the last argument.
class ScriptedTools final : public CommandExecutor {
 public:
  CommandResult run(const std::string& tool, const std::vector<std::string>& arguments,
                    std::optional<std::string_view> input,
                    std::optional<double> timeout) const noexcept override {
    return const_cast<ScriptedTools*>(this)->record(tool, arguments, input, timeout.value_or(-1));
  }
  void reply(const std::string& tool, const std::string& subject, std::vector<CommandResult> replies) {
    replies_[{tool, subject}] = {replies.begin(), replies.end()};
  }
  void scans(const std::string& host, const std::string& fingerprint) {
    reply(kKeyscan, host, {says(keyLine(host), 0)});
    reply(kKeygen, host, {says("256 " + fingerprint + " " + host + " (ED25519)", 0)});
  }
  Service service(HostKeyCaptureOrder order = HostKeyCaptureOrder::ordered) {
    return Service({[this](const auto& tool, const auto& arguments, auto input, double timeout) {
                      return record(tool, arguments, input, timeout);
                    },
                    [this](double seconds) { sleeps.push_back(seconds); },
                    [this](const RecoveryProfile&, const std::string& host, const std::string& knownHosts,
                           std::string_view password) {
                      unlocks.push_back({host, knownHosts, std::string(password)});
                      return unlockReply;
                    }},
                   {}, order);
  }
  std::vector<Call> callsTo(const std::string& tool) const {
    std::vector<Call> matching;
    for (const Call& call : calls) {
      if (call.tool == tool) matching.push_back(call);
    }
    return matching;
  }

  std::vector<Call> calls;
  std::vector<double> sleeps;
  std::vector<std::vector<std::string>> unlocks;
  CommandResult unlockReply;
  CommandResult otherwise{"", "", 1, false};  // for a subject without replies
  bool sshThrows = false;

 private:
  CommandResult record(const std::string& tool, const std::vector<std::string>& arguments,
                       std::optional<std::string_view> input, double timeout) {
    const std::lock_guard lock(mutex_);
    Call call;
    call.tool = tool, call.arguments = arguments, call.timeout = timeout;
    if (input) call.input = std::string(*input);
    std::string subject = arguments.back();
    if (tool == kKeygen) std::istringstream(call.input.value_or("")) >> subject;
    if (tool == kSsh) {
      subject = arguments.at(16);
      call.knownHostsPath = arguments.at(13).substr(arguments.at(13).find('=') + 1);
      std::ifstream file(call.knownHostsPath);
      call.knownHosts.assign(std::istreambuf_iterator<char>(file), {});
      call.knownHostsMode = fs::status(call.knownHostsPath).permissions();
    }
    calls.push_back(call);
    if (tool == kSsh && sshThrows) throw std::runtime_error("probe failed");
    auto found = replies_.find({tool, subject});
    if (found == replies_.end()) return otherwise;
    CommandResult reply = found->second.front();
    if (found->second.size() > 1) found->second.pop_front();
    return reply;
  }

  std::mutex mutex_;
  std::map<std::pair<std::string, std::string>, std::deque<CommandResult>> replies_;
};

RecoveryProfile profileFor(std::vector<std::string> hosts, std::string saved = "",
                           Policy policy = Policy::requireVerifiedHostKey) {
  RecoveryProfile profile;
  profile.lastKnownLocalIPs = std::move(hosts);
  profile.fileVaultUsername = " admin\n";
  profile.hostKeyFingerprint = std::move(saved);
  profile.hostKeyTrustPolicy = policy;
  return profile;
}

CompanionRecoveryCheckResult check(State state, const std::string& message,
                                   std::optional<std::string> fingerprint = std::nullopt,
                                   bool ambiguous = false) {
  return {state, message, std::move(fingerprint), ambiguous};
}
VerifiedRecoveryTarget keyed(const std::string& host, const std::string& fingerprint) {
  return {host, fingerprint, keyLine(host)};
}

TEST(CompanionRecoveryServiceTest, ProbeTranscriptsClassifyByFirstMatchingRule) {
  const std::string ambiguous(Service::ambiguousPasswordPromptMessage);
  const std::string denied = "admin@h1: Permission denied (publickey,password,keyboard-interactive).";
  const std::string unproved = "Mac is reachable, but SSH authentication did not prove FileVault is locked.";
  const std::string prompt = "FileVault unlock prompt is reachable.";
  const std::string normal = "Mac is running normally.";
  const std::optional<std::string> fp = "SHA256:fp";
  // Output, the two flags, the answer.
  const std::tuple<CommandResult, bool, bool, CompanionRecoveryCheckResult> cases[] = {
      {says("System successfully unlocked. " + kLockedOut), 0, 0,
       check(State::unlocked, "Mac unlocked.", fp)},
      {{"Password:", "THIS SYSTEM IS LOCKED", 255, false}, true, true, check(State::locked, prompt, fp)},
      {{"to unlock it, use a local", "", -2, true}, false, false, check(State::locked, prompt, fp)},
      {says("Password:", 0), true, true, check(State::online, normal, fp)},
      {{"Password:", "", -2, true}, true, true, check(State::offline, "Recovery check timed out.")},
      {says("Password:"), true, false, check(State::locked, ambiguous, fp, true)},
      {says("password:"), false, true, check(State::sshReachable, normal, fp)},
      {says(denied), true, true, check(State::locked, ambiguous, fp, true)},
      {says(denied), true, false, check(State::sshReachable, unproved, fp)},
      {says(denied), false, true, check(State::sshReachable, unproved, fp)},
      {kRefused, true, true, check(State::offline, "Mac is not reachable.")},
      {says("kex_exchange_identification: read: reset"), true, true,
       check(State::needsAttention, kUnclear, fp)},
  };
  for (const auto& [output, ambiguousIsLocked, genericIsLocked, expected] : cases) {
    SCOPED_TRACE(output.standardOutput + "|" + output.standardError);
    EXPECT_EQ(Service::classifySSHProbe(output, fp, ambiguousIsLocked, genericIsLocked), expected);
  }
}

TEST(CompanionRecoveryServiceTest, UnlockTranscriptsPreferSuccessThenTimeoutThenRejection) {
  const std::optional<std::string> fp = "SHA256:fp";
  const std::pair<CommandResult, CompanionRecoveryCheckResult> cases[] = {
      {{"System successfully unlocked.", "Unlock timed out.", -2, true},
       check(State::unlocked, "Mac unlocked. It may take a minute to finish booting.", fp)},
      {{"Password:", "Unlock timed out.", -2, true}, check(State::needsAttention, "Unlock timed out.", fp)},
      {says(kLockedOut + "\nSorry, try again."),
       check(State::needsAttention, "The FileVault password was rejected.", fp)},
      {says(kLockedOut), check(State::locked, "FileVault is still locked.", fp)},
      {{"", "Could not create an interactive SSH session.", -1, false},
       check(State::needsAttention, "Mac responded, but unlock did not complete.", fp)},
  };
  for (const auto& [output, expected] : cases) {
    SCOPED_TRACE(output.standardOutput);
    EXPECT_EQ(Service::classifySSHUnlock(output, fp), expected);
  }
}

// Hosts as "name:key ..." (no ":key": the scan fails); keys and the saved one are short for "SHA256:<key>".
TEST(CompanionRecoveryServiceTest, BothCaptureOrdersResolveAlikeAndNeverPassAnOption) {
  const Policy best = Policy::allowUnverifiedLocalNetwork;
  const Policy strict = Policy::requireVerifiedHostKey;
  const std::string changed(Service::hostKeyChangedMessage);
  const std::string firstUse(Service::hostKeyFirstUseConfirmationMessage);
  const std::string required(Service::hostKeyVerificationRequiredMessage);
  const std::string badUser = "Invalid SSH username.";
  const auto attention = [](const std::string& message, std::optional<std::string> key = std::nullopt) {
    return RecoveryTargetResolution(check(State::needsAttention, message, key ? "SHA256:" + *key : key));
  };
  struct Case {
    std::string saved;
    Policy policy;
    std::string hosts;
    RecoveryTargetResolution expected;
    std::size_t orderedScans;
    void (*edit)(RecoveryProfile&) = nullptr;
  };
  const Case cases[] = {
      {"A", strict, "h1:B h2:A h3:A", keyed("h2", "SHA256:A"), 2},
      {" SHA256:A\n", strict, "h1 h2:B h3:C", attention(changed, "B"), 3},
      {"A", best, "h1 h2:B", keyed("h2", "SHA256:B"), 2},
      {"A", best, "-oProxyCommand h1 h2", VerifiedRecoveryTarget{"h1", {}, {}}, 2},
      {"", best, "h1 h2:B h3:C", keyed("h2", "SHA256:B"), 2},
      {"", strict, "h1 h2:B h3:C", attention(firstUse, "B"), 3},
      {"", strict, "h1", attention(required), 1},
      {"A", strict, "h1", attention(kNotVerified), 1},
      {"A", strict, "-oProxyCommand h1", attention("Invalid hostname."), 1},
      {"", best, "", check(State::offline, "Missing hostname."), 0},
      {"", best, "h1:B", check(State::offline, "Invalid SSH port."), 0, [](auto& p) { p.sshPort = 0; }},
      {"", best, "h1:B", attention(badUser), 0, [](auto& p) { p.fileVaultUsername = " -X"; }},
      {"", best, "h1:B", attention(badUser), 0, [](auto& p) { p.normalSSHUsername = "-l"; }},
  };
  for (const Case& row : cases) {
    for (const auto order : {HostKeyCaptureOrder::ordered, HostKeyCaptureOrder::concurrent}) {
      SCOPED_TRACE(row.saved + " | " + row.hosts +
                   (order == HostKeyCaptureOrder::ordered ? " | ordered" : ""));
      ScriptedTools tools;
      std::vector<std::string> hosts;
      std::istringstream words(row.hosts);
      for (std::string word; words >> word;) {
        hosts.push_back(word.substr(0, word.find(':')));
        if (word.find(':') != std::string::npos) {
          tools.scans(hosts.back(), "SHA256:" + word.substr(word.find(':') + 1));
        }
      }
      const std::string saved = row.saved.size() == 1 ? "SHA256:" + row.saved : row.saved;
      RecoveryProfile profile = profileFor(hosts, saved, row.policy);
      if (row.edit) row.edit(profile);
      EXPECT_EQ(tools.service(order).resolveTarget(profile), row.expected);
      if (order == HostKeyCaptureOrder::ordered) {
        EXPECT_EQ(tools.callsTo(kKeyscan).size(), row.orderedScans);
      }
      for (const Call& call : tools.calls) {
        EXPECT_THAT(call.arguments, testing::Not(testing::Contains(testing::HasSubstr("ProxyCommand"))));
      }
    }
  }
}

TEST(CompanionRecoveryServiceTest, CheckProbesThroughPrivateKnownHostsFileThenAsNormalUser) {
  const std::string denied = "Permission denied (publickey).";
  const std::optional<std::string> fp = "SHA256:A";
  const std::string ambiguous(Service::ambiguousPasswordPromptMessage);
  // First probe's reply, the normal user's (none: no second probe), the answer.
  const std::tuple<CommandResult, std::optional<CommandResult>, CompanionRecoveryCheckResult> cases[] = {
      {says(kLockedOut), std::nullopt, check(State::locked, "FileVault unlock prompt is reachable.", fp)},
      {says("Password:"), says("", 0), check(State::online, "Mac is running normally.", fp)},
      {says("Password:"), says(denied),
       check(State::sshReachable,
             "Mac is reachable, but SSH authentication did not prove FileVault is locked.", fp)},
      // A normal user who cannot get in leaves the first answer standing.
      {says("Password:"), kRefused, check(State::locked, ambiguous, fp, true)},
  };
  for (const auto& [first, second, expected] : cases) {
    SCOPED_TRACE(first.standardOutput + "|" + first.standardError);
    ScriptedTools tools;
    tools.scans("h1", "SHA256:A");
    tools.reply(kSsh, "admin@h1", {first});
    if (second) tools.reply(kSsh, "alice@h1", {*second});
    RecoveryProfile profile = profileFor({"h1"}, "SHA256:A");
    profile.normalSSHUsername = "alice";
    EXPECT_EQ(tools.service().checkRecoveryState(profile), expected);
    const auto probes = tools.callsTo(kSsh);
    ASSERT_EQ(probes.size(), second ? 2U : 1U);
    const std::string& path = probes[0].knownHostsPath;
    EXPECT_EQ(probes[0].arguments,
              (std::vector<std::string>{"-p", "22", "-o", "BatchMode=yes", "-o", "NumberOfPasswordPrompts=0",
                                        "-o", "ConnectTimeout=5", "-o", "ConnectionAttempts=1", "-o",
                                        "StrictHostKeyChecking=yes", "-o", "UserKnownHostsFile=" + path, "-o",
                                        "GlobalKnownHostsFile=/dev/null", "admin@h1", "exit"}));
    EXPECT_THAT(path,
                testing::StartsWith((fs::temp_directory_path() / "Harborkeeper-known-hosts-").string()));
    for (const Call& probe : probes) {
      EXPECT_EQ(probe.timeout, 8);
      EXPECT_EQ(probe.knownHosts, keyLine("h1") + "\n");
      EXPECT_EQ(probe.knownHostsMode, fs::perms::owner_read | fs::perms::owner_write);
    }
    EXPECT_FALSE(fs::exists(path));
  }
}

TEST(CompanionRecoveryServiceTest, UnverifiedTargetSkipsKeyCheckingAndFileGoesEvenOnThrow) {
  ScriptedTools tools;
  tools.reply(kSsh, "admin@h1", {says(kLockedOut)});
  EXPECT_EQ(tools.service().checkRecoveryState(profileFor({"h1"}, "", Policy::allowUnverifiedLocalNetwork)),
            check(State::locked, "FileVault unlock prompt is reachable."));
  EXPECT_THAT(tools.callsTo(kSsh).at(0).arguments,
              testing::IsSupersetOf({"StrictHostKeyChecking=no", "UserKnownHostsFile=/dev/null"}));

  ScriptedTools throwing;
  throwing.scans("h1", "SHA256:A");
  throwing.sshThrows = true;
  EXPECT_THROW((void)throwing.service().checkRecoveryState(profileFor({"h1"}, "SHA256:A")),
               std::runtime_error);
  EXPECT_FALSE(fs::exists(throwing.callsTo(kSsh).at(0).knownHostsPath));
}

TEST(CompanionRecoveryServiceTest, UnlockSendsPasswordOnlyToLockedMacThenWaitsForIt) {
  const CommandResult ok = says("Password:\nSystem successfully unlocked.", 0);
  const CommandResult locked = says(kLockedOut);
  const std::string notNeeded = "Recovery is not needed right now.";
  const std::string rejected = "The FileVault password was rejected.";
  // Replies to the first probe, the unlock and the normal user's probes; the answer; the waits.
  const std::tuple<CommandResult, CommandResult, std::vector<CommandResult>, State, std::string, std::size_t>
      cases[] = {
          {says("Permission denied (publickey)."), ok, {}, State::online, notNeeded, 0},
          {kRefused, ok, {}, State::offline, "Mac is not reachable.", 0},
          {locked, says("Sorry, try again."), {}, State::needsAttention, rejected, 0},
          {locked, ok, {kRefused, locked, says("Password:")}, State::online, "Mac is back online.", 3},
          {locked, ok, {says("kex reset")}, State::needsAttention, kUnclear, 1},
          {locked, ok, {kRefused}, State::booting, "Mac unlocked. Waiting for normal reachability.", 3},
      };
  for (const auto& [probe, unlock, followUps, state, message, waits] : cases) {
    SCOPED_TRACE(message);
    ScriptedTools tools;
    tools.scans("h1", "SHA256:A");
    tools.reply(kSsh, "admin@h1", {probe});
    if (!followUps.empty()) tools.reply(kSsh, "alice@h1", followUps);
    tools.unlockReply = unlock;
    RecoveryProfile profile = profileFor({"h1"}, "SHA256:A");
    profile.normalSSHUsername = "alice";
    std::vector<std::pair<RecoveryStep, int>> steps;
    EXPECT_EQ(tools.service().unlockLockedMac(profile, "s3cret pw",
                                              [&](RecoveryStep step, int n) { steps.emplace_back(step, n); }),
              check(state, message, "SHA256:A"));
    EXPECT_EQ(tools.sleeps, std::vector<double>(waits, 4.0));
    EXPECT_EQ(tools.callsTo(kSsh).size(), 1 + waits);
    const bool sent = probe == locked;
    std::vector<std::vector<std::string>> sentTo;
    if (sent) sentTo.push_back({"h1", tools.calls[2].knownHostsPath, "s3cret pw"});
    EXPECT_EQ(tools.unlocks, sentTo);
    std::vector<std::pair<RecoveryStep, int>> expectedSteps{{RecoveryStep::probing, 0}};
    if (sent) expectedSteps.emplace_back(RecoveryStep::unlocking, 0);
    for (int attempt = 1; attempt <= static_cast<int>(waits); ++attempt) {
      expectedSteps.emplace_back(RecoveryStep::waitingForMac, attempt);
    }
    EXPECT_EQ(steps, expectedSteps);
    for (const Call& call : tools.calls) {
      EXPECT_THAT(call.arguments, testing::Not(testing::Contains("s3cret pw")));
    }
  }
  ScriptedTools idle;
  EXPECT_EQ(idle.service().unlockLockedMac(profileFor({"h1"}), ""),
            check(State::needsAttention, "Enter the FileVault password."));
  EXPECT_TRUE(idle.calls.empty());
}

TEST(CompanionRecoveryServiceTest, CaptureTrimsHostAndReducesKeyToFingerprint) {
  const CommandResult key = says(keyLine("h1") + "\n", 0);
  const CommandResult digest = says("256 SHA256:AbC/+1 h1 (ED25519)", 0);
  const std::string read = "Could not read the SSH host key.";
  const std::string parse = "Could not parse the SSH host key.";
  using Capture = CompanionHostKeyCaptureResult;
  // Host, port, ssh-keyscan's reply, ssh-keygen's reply, the outcome.
  const std::tuple<std::string, std::int64_t, CommandResult, CommandResult, Capture> cases[] = {
      {" h1 \n", 22, key, digest, {"SHA256:AbC/+1", "Captured SSH host key."}},
      {"h1", 22, key, {"", "SHA256:e\tSHA256:f", 1, false}, {"SHA256:e", "Captured SSH host key."}},
      {"h1", 22, key, says("\xC2\xA0SHA256:z\xE2\x80\x83tail", 0), {"SHA256:z", "Captured SSH host key."}},
      {"h1", 22, key, says("256 MD5:3f:aa sha256:x xSHA256:y", 0), {std::nullopt, parse}},
      {"\n", 22, key, digest, {std::nullopt, "Missing hostname."}},
      {" -oProxyCommand=x", 22, key, digest, {std::nullopt, "Invalid hostname."}},
      {"h1", 0, key, digest, {std::nullopt, "Invalid SSH port."}},
      {"h1", 22, {"", "", -2, true}, digest, {std::nullopt, "SSH host key scan timed out."}},
      {"h1", 22, says("", 0), digest, {std::nullopt, read}},
      {"h1", 22, says(keyLine("h1"), 1), digest, {std::nullopt, read}},
  };
  for (const auto& [host, port, scan, described, expected] : cases) {
    SCOPED_TRACE(host + "|" + scan.standardOutput + "|" + described.standardOutput);
    ScriptedTools tools;
    tools.reply(kKeyscan, "h1", {scan});
    tools.reply(kKeygen, "h1", {described});
    EXPECT_EQ(tools.service().captureHostKeyFingerprint(host, port), expected);
    const bool refused = expected.message.starts_with("Invalid") || expected.message.starts_with("Missing");
    EXPECT_EQ(tools.calls.empty(), refused);
  }
  ScriptedTools tools;
  tools.scans("h1", "SHA256:x");
  EXPECT_EQ(tools.service().captureHostKeyMaterial("h1", 2222).knownHostsLine, keyLine("h1"));
  ASSERT_EQ(tools.calls.size(), 2U);
  EXPECT_EQ(tools.calls[0].arguments,
            (std::vector<std::string>{"-p", "2222", "-T", "5", "-t", "ed25519", "h1"}));
  EXPECT_EQ(tools.calls[1].arguments, (std::vector<std::string>{"-E", "sha256", "-lf", "-"}));
  EXPECT_EQ(tools.calls[1].input, keyLine("h1"));
  EXPECT_EQ(std::make_pair(tools.calls[0].timeout, tools.calls[1].timeout), std::make_pair(7.0, 5.0));
}

TEST(CompanionReachabilityServiceTest, ChecksPortWithNcAndExplainsFailure) {
  const std::tuple<std::string, std::int64_t, CommandResult, CompanionReachabilityResult> cases[] = {
      {" h1\n", 2222, says("", 0), {true, "Mac is reachable."}},
      {"h1", 22, {"", "", -2, true}, {false, "Recovery check timed out."}},
      {"h1", 22, {"out", "nc: connect failed", 1, false}, {false, "nc: connect failed"}},
      {"h1", 22, says("out", 1), {false, "out"}},
      {"h1", 22, says("", 1), {false, "Mac is not reachable."}},
      {" ", 22, says("", 0), {false, "Missing hostname."}},
      {"-X", 22, says("", 0), {false, "Invalid hostname."}},
      {"h1", 0, says("", 0), {false, "Invalid SSH port."}},
      {"h1", 65536, says("", 0), {false, "Invalid SSH port."}},
  };
  for (const auto& [host, port, reply, expected] : cases) {
    SCOPED_TRACE(host + ":" + std::to_string(port));
    ScriptedTools nc;
    nc.otherwise = reply;
    EXPECT_EQ(CompanionReachabilityService(nc).checkSSH(host, port), expected);
    const bool refused = expected.message.starts_with("Invalid") || expected.message.starts_with("Missing");
    EXPECT_EQ(nc.calls.empty(), refused);
    for (const Call& call : nc.calls) {
      EXPECT_EQ(call.arguments, (std::vector<std::string>{"-w", "3", "-z", "h1", std::to_string(port)}));
      EXPECT_EQ(call.timeout, 5);
    }
  }
}

TEST(SSHUnlockCommandBuilderTest, CommandsQuoteWhatTheShellWouldRead) {
  RecoveryProfile profile = profileFor({"10.0.0.5"});
  profile.vpnHostname = "studio.vpn";
  profile.localHostname = "studio.local";
  const SSHUnlockCommandBuilder builder;
  EXPECT_THAT(builder.commands(profile),
              testing::ElementsAre("ssh admin@studio.vpn", "ssh admin@studio.local", "ssh admin@10.0.0.5"));
  profile = profileFor({});
  profile.localHostname = "my mac";
  profile.fileVaultUsername = "o'neil";
  profile.sshPort = 2222;
  EXPECT_EQ(builder.command(profile), "ssh -p 2222 'o'\\''neil'@'my mac'");
  EXPECT_EQ(SSHUnlockCommandBuilder::shellEscaped("A-z_0.9"), "A-z_0.9");
  EXPECT_EQ(SSHUnlockCommandBuilder::shellEscaped("$(x)"), "'$(x)'");
}

}  // namespace
}  // namespace harborkeeper
