#include "core/recovery/companion_recovery_service.h"

#include <deque>
#include <map>
#include <mutex>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

using State = CompanionUnlockState;
using Service = CompanionRecoveryService;
using Policy = RecoveryHostKeyTrustPolicy;
using Strings = std::vector<std::string>;
namespace fs = std::filesystem;
using testing::Each;
using testing::HasSubstr;
using testing::Not;

const std::string kLockedOut = "This system is locked. To unlock it, use a local account name and password.";
const std::string kPrompt = "FileVault unlock prompt is reachable.";
const std::string kUnclear = "Mac responded, but the recovery state is unclear.";
const std::string kAmbiguous(Service::ambiguousPasswordPromptMessage);
const std::string kRejected = "The FileVault password was rejected.";
const std::string kBack = "Mac is back online.";
const CommandResult kRefused{"", "ssh: connect to host h1 port 22: Connection refused", 255, false};
const CommandResult kTimedOut{"", "", -2, true};

std::string keyLine(const std::string& host) { return host + " ssh-ed25519 AAAAC3NzaC1lZDI1NTE5" + host; }
CommandResult says(std::string output, int exitCode = 255) {
  return {std::move(output), "", exitCode, false};
}
CompanionRecoveryCheckResult check(State state, const std::string& message,
                                   std::optional<std::string> fingerprint = std::nullopt,
                                   bool ambiguous = false) {
  return {state, message, std::move(fingerprint), ambiguous};
}
// Input these services turn down without running a tool.
bool refusedUpfront(const std::string& message) {
  return message.starts_with("Invalid") || message.starts_with("Missing");
}

struct Call {
  Strings arguments;
  std::string knownHostsPath, knownHosts;  // ssh's, with the file's text and mode while ssh ran
  unsigned knownHostsMode = 0;
};

// Replies keyed "tool subject" (the tool's file name; the subject: ssh's
// "user@host", else the input's first word, else the last argument) go out in
// order, the last repeating.
struct Tools final : CommandExecutor {
  CommandResult run(const std::string& tool, const Strings& arguments, std::optional<std::string_view> input,
                    std::optional<double> /*timeout*/) const noexcept override {
    const std::lock_guard lock(mutex);
    Call& call = calls.emplace_back();
    call.arguments = arguments;
    const std::string name = fs::path(tool).filename();
    std::string subject = arguments.back();
    if (input) std::istringstream(std::string(*input)) >> subject;
    if (name == "ssh-keyscan") ++keyScans;
    if (name == "ssh") {
      subject = arguments.at(16);
      call.knownHostsPath = arguments.at(13).substr(arguments.at(13).find('=') + 1);
      call.knownHosts = testing_support::contentOf(call.knownHostsPath);
      call.knownHostsMode = testing_support::modeOf(call.knownHostsPath);
    }
    std::deque<CommandResult>& queue = replies[name + " " + subject];
    if (queue.empty()) return otherwise;
    CommandResult reply = queue.front();
    if (queue.size() > 1) queue.pop_front();
    return reply;
  }
  void scans(const std::string& host, const std::string& fingerprint) {
    replies["ssh-keyscan " + host] = {says(keyLine(host), 0)};
    replies["ssh-keygen " + host] = {says("256 " + fingerprint + " " + host + " (ED25519)", 0)};
  }
  Service service(HostKeyCaptureOrder order = HostKeyCaptureOrder::ordered) {
    return Service({[this](const auto& tool, const auto& arguments, auto input, double timeout) {
                      return run(tool, arguments, input, timeout);
                    },
                    [this](double seconds) { sleeps.push_back(seconds); },
                    [this](const RecoveryProfile&, const std::string& host, const std::string& knownHosts,
                           std::string_view password) {
                      unlocks.push_back({host, knownHosts, std::string(password)});
                      return unlockReply;
                    }},
                   {}, order);
  }

  mutable std::mutex mutex;
  mutable std::map<std::string, std::deque<CommandResult>> replies;
  mutable std::vector<Call> calls;
  mutable std::size_t keyScans = 0;
  CommandResult otherwise{"", "", 1, false}, unlockReply;
  std::vector<double> sleeps;
  std::vector<Strings> unlocks;
};

RecoveryProfile profileFor(Strings hosts, std::string saved = "",
                           Policy policy = Policy::requireVerifiedHostKey) {
  RecoveryProfile profile;
  profile.lastKnownLocalIPs = std::move(hosts);
  profile.fileVaultUsername = " admin\n";
  profile.normalSSHUsername = "alice";
  profile.hostKeyFingerprint = std::move(saved);
  profile.hostKeyTrustPolicy = policy;
  return profile;
}

TEST(CompanionRecoveryServiceTest, TranscriptsClassifyByFirstMatchingRule) {
  const std::string denied = "admin@h1: Permission denied (publickey,password,keyboard-interactive).";
  const std::string unproved = "Mac is reachable, but SSH authentication did not prove FileVault is locked.";
  const std::string normal = "Mac is running normally.";
  const std::optional<std::string> fp = "SHA256:fp";
  // Output, the two flags (ambiguous and generic failures count as locked), the answer.
  const std::tuple<CommandResult, bool, bool, CompanionRecoveryCheckResult> probes[] = {
      {says("System successfully unlocked. " + kLockedOut), false, false,
       check(State::unlocked, "Mac unlocked.", fp)},
      {{"Password:", "THIS SYSTEM IS LOCKED", 255, false}, true, true, check(State::locked, kPrompt, fp)},
      {{"to unlock it, use a local", "", -2, true}, false, false, check(State::locked, kPrompt, fp)},
      {says("Password:", 0), true, true, check(State::online, normal, fp)},
      {{"Password:", "", -2, true}, true, true, check(State::offline, "Recovery check timed out.")},
      {says("Password:"), true, false, check(State::locked, kAmbiguous, fp, true)},
      {says("password:"), false, true, check(State::sshReachable, normal, fp)},
      {says(denied), true, true, check(State::locked, kAmbiguous, fp, true)},
      {says(denied), true, false, check(State::sshReachable, unproved, fp)},
      {says(denied), false, true, check(State::sshReachable, unproved, fp)},
      {kRefused, true, true, check(State::offline, "Mac is not reachable.")},
      {says("kex_exchange_identification: read: reset"), true, true,
       check(State::needsAttention, kUnclear, fp)},
  };
  for (const auto& [output, ambiguousIsLocked, genericIsLocked, expected] : probes) {
    SCOPED_TRACE(output.standardOutput + "|" + output.standardError);
    EXPECT_EQ(Service::classifySSHProbe(output, fp, ambiguousIsLocked, genericIsLocked), expected);
  }
  // Success first: a run that printed the notice and then hung still unlocked the disk.
  const std::pair<CommandResult, CompanionRecoveryCheckResult> unlocks[] = {
      {{"System successfully unlocked.", "", -2, true},
       check(State::unlocked, "Mac unlocked. It may take a minute to finish booting.", fp)},
      {{"Password:", "Unlock timed out.", -2, true}, check(State::needsAttention, "Unlock timed out.", fp)},
      {says(kLockedOut), check(State::locked, "FileVault is still locked.", fp)},
      {says("", -1), check(State::needsAttention, "Mac responded, but unlock did not complete.", fp)},
  };
  for (const auto& [output, expected] : unlocks) {
    SCOPED_TRACE(output.standardOutput);
    EXPECT_EQ(Service::classifySSHUnlock(output, fp), expected);
  }
}

// Hosts as "name:key ..." (no ":key": the scan fails); a one-letter key is short for "SHA256:<key>".
// Every tool starts through the stand-in, so no call carrying an option means none ran; checks and
// unlocks both begin here.
TEST(CompanionRecoveryServiceTest, BothCaptureOrdersResolveAlikeAndNeverPassAnOption) {
  const Policy best = Policy::allowUnverifiedLocalNetwork;
  const Policy strict = Policy::requireVerifiedHostKey;
  const std::string badUser = "Invalid SSH username.";
  const auto attention = [](std::string_view message, std::optional<std::string> key = std::nullopt) {
    return RecoveryTargetResolution(
        check(State::needsAttention, std::string(message), key ? "SHA256:" + *key : key));
  };
  const auto keyed = [](const std::string& host, const std::string& key) {
    return VerifiedRecoveryTarget{host, "SHA256:" + key, keyLine(host)};
  };
  struct Case {
    std::string saved, hosts;
    Policy policy;
    RecoveryTargetResolution expected;
    std::size_t orderedScans;
    void (*edit)(RecoveryProfile&) = nullptr;
  };
  const Case cases[] = {
      {"A", "h1:B h2:A h3:A", strict, keyed("h2", "A"), 2},
      {" SHA256:A\n", "h1 h2:B h3:C", strict, attention(Service::hostKeyChangedMessage, "B"), 3},
      {"A", "h1 h2:B", best, keyed("h2", "B"), 2},
      {"A", "-oProxyCommand h1 h2", best, VerifiedRecoveryTarget{"h1", {}, {}}, 2},
      {"", "h1 h2:B h3:C", best, keyed("h2", "B"), 2},
      {"", "h1 h2:B h3:C", strict, attention(Service::hostKeyFirstUseConfirmationMessage, "B"), 3},
      {"", "h1", strict, attention(Service::hostKeyVerificationRequiredMessage), 1},
      {"A", "-oProxyCommand h1", strict, attention("Invalid hostname."), 1},
      {"", "-oProxyCommand", best, attention("Invalid hostname."), 0},
      {"", "", best, check(State::offline, "Missing hostname."), 0},
      {"", "h1:B", best, check(State::offline, "Invalid SSH port."), 0, [](auto& p) { p.sshPort = 0; }},
      {"", "h1:B", best, attention(badUser), 0, [](auto& p) { p.fileVaultUsername = " -X"; }},
      {"", "h1:B", best, attention(badUser), 0, [](auto& p) { p.normalSSHUsername = "-l"; }},
  };
  for (const Case& row : cases) {
    for (const auto order : {HostKeyCaptureOrder::ordered, HostKeyCaptureOrder::concurrent}) {
      SCOPED_TRACE(row.saved + "|" + row.hosts + (order == HostKeyCaptureOrder::ordered ? "|ordered" : ""));
      Tools tools;
      Strings hosts;
      std::istringstream words(row.hosts);
      for (std::string word; words >> word;) {
        hosts.push_back(word.substr(0, word.find(':')));
        if (word != hosts.back()) tools.scans(hosts.back(), "SHA256:" + word.substr(word.find(':') + 1));
      }
      RecoveryProfile profile =
          profileFor(hosts, row.saved.size() == 1 ? "SHA256:" + row.saved : row.saved, row.policy);
      if (row.edit) row.edit(profile);
      EXPECT_EQ(tools.service(order).resolveTarget(profile), row.expected);
      if (order == HostKeyCaptureOrder::ordered) {
        EXPECT_EQ(tools.keyScans, row.orderedScans);
      }
      for (const Call& call : tools.calls) EXPECT_THAT(call.arguments, Each(Not(HasSubstr("ProxyCommand"))));
    }
  }
}

// Rows without an unlock reply are checks. A normal user's reply a row does not use would change its answer.
TEST(CompanionRecoveryServiceTest, ProbesAgainstThePinnedKeyAndSendsThePasswordOnceOnlyToALockedMac) {
  const CommandResult locked = says(kLockedOut);
  const CommandResult ok = says("Password:\nSystem successfully unlocked.", 0);
  const CommandResult running = says("", 0);
  const std::string fp = "SHA256:A";
  const std::string booting = "Mac unlocked. Waiting for normal reachability.";
  // Replies to the FileVault user's probe, the normal user's probes and the unlock; the progress (Probing,
  // Unlocking, Waiting and its attempt); the answer, whose lack of a key makes the profile a best-effort one.
  using Row = std::tuple<CommandResult, std::deque<CommandResult>, std::optional<CommandResult>, std::string,
                         CompanionRecoveryCheckResult>;
  // recovery_sshd_test proves a pinned check at the prompt and of a running
  // machine, and an unlock of one that needs none, against a real sshd.
  const Row cases[] = {
      {says("Password:"), {kRefused}, {}, "", check(State::locked, kAmbiguous, fp, true)},
      {locked, {running}, {}, "", check(State::locked, kPrompt)},
      {locked, {}, says("Sorry, try again."), "PU", check(State::needsAttention, kRejected, fp)},
      {locked, {kRefused, locked, says("Password:")}, ok, "PUW1W2W3", check(State::online, kBack, fp)},
      {locked, {says("kex reset")}, ok, "PUW1", check(State::needsAttention, kUnclear, fp)},
      {locked, {kRefused}, ok, "PUW1W2W3", check(State::booting, booting, fp)},
  };
  for (const auto& [first, normal, unlock, progress, expected] : cases) {
    SCOPED_TRACE(expected.message);
    Tools tools;
    const bool pinned = expected.hostKeyFingerprint.has_value();
    if (pinned) tools.scans("h1", fp);
    tools.replies["ssh admin@h1"] = {first};
    tools.replies["ssh alice@h1"] = normal;
    tools.unlockReply = unlock.value_or(ok);
    const RecoveryProfile profile =
        profileFor({"h1"}, pinned ? fp : "",
                   pinned ? Policy::requireVerifiedHostKey : Policy::allowUnverifiedLocalNetwork);
    std::string steps;
    const auto onStep = [&](RecoveryStep step, int n) {
      steps += "PUW"[int(step)] + (n ? std::to_string(n) : "");
    };
    const Service service = tools.service();
    EXPECT_EQ(
        unlock ? service.unlockLockedMac(profile, "s3cret pw", onStep) : service.checkRecoveryState(profile),
        expected);
    EXPECT_EQ(steps, progress);
    EXPECT_EQ(tools.sleeps.size(), std::ranges::count(progress, 'W'));
    const Call& probe = tools.calls.at(pinned ? 2 : 1);  // after the key scan (and description)
    EXPECT_THAT(probe.arguments,
                testing::IsSupersetOf(
                    Strings{"BatchMode=yes", "NumberOfPasswordPrompts=0", "GlobalKnownHostsFile=/dev/null",
                            "UserKnownHostsFile=" + (pinned ? probe.knownHostsPath : "/dev/null"),
                            std::string("StrictHostKeyChecking=") + (pinned ? "yes" : "no")}));
    if (pinned) {
      EXPECT_EQ(std::pair(probe.knownHosts, probe.knownHostsMode), std::pair(keyLine("h1") + "\n", 0600u));
    }
    EXPECT_EQ(fs::exists(probe.knownHostsPath), !pinned);
    std::vector<Strings> sent;
    if (progress.find('U') != std::string::npos) sent.push_back({"h1", probe.knownHostsPath, "s3cret pw"});
    EXPECT_EQ(tools.unlocks, sent);
  }
  Tools idle;
  EXPECT_EQ(idle.service().unlockLockedMac(profileFor({"h1"}), ""),
            check(State::needsAttention, "Enter the FileVault password."));
  EXPECT_TRUE(idle.calls.empty());
}

TEST(CompanionRecoveryServiceTest, CaptureTrimsHostAndReducesKeyToFingerprint) {
  const CommandResult key = says(keyLine("h1") + "\n", 0);
  const CommandResult digest = says("256 SHA256:AbC/+1 h1 (ED25519)", 0);
  using Capture = CompanionHostKeyCaptureResult;
  // Host, ssh-keyscan's reply, ssh-keygen's reply, the fingerprint or else the message.
  const std::tuple<std::string, CommandResult, CommandResult, std::string> cases[] = {
      {" h1 \n", key, digest, "SHA256:AbC/+1"},
      {"h1", key, {"", "SHA256:e\tSHA256:f", 1, false}, "SHA256:e"},
      {"h1", key, says("256 MD5:3f:aa sha256:x xSHA256:y", 0), "Could not parse the SSH host key."},
      {" -oProxyCommand=x", key, digest, "Invalid hostname."},
      {"h1", kTimedOut, digest, "SSH host key scan timed out."},
      {"h1", says(keyLine("h1"), 1), digest, "Could not read the SSH host key."},
  };
  for (const auto& [host, scan, described, expected] : cases) {
    SCOPED_TRACE(expected);
    Tools tools;
    tools.replies["ssh-keyscan h1"] = {scan};
    tools.replies["ssh-keygen h1"] = {described};
    EXPECT_EQ(tools.service().captureHostKeyFingerprint(host, 22),
              (expected.starts_with("SHA256:") ? Capture{expected, "Captured SSH host key."}
                                               : Capture{std::nullopt, expected}));
    EXPECT_EQ(tools.calls.empty(), refusedUpfront(expected));
  }
}

TEST(CompanionReachabilityServiceTest, ChecksPortWithNcAndExplainsFailure) {
  const std::tuple<std::string, std::int64_t, CommandResult, CompanionReachabilityResult> cases[] = {
      {" h1\n", 2222, says("", 0), {true, "Mac is reachable."}},
      {"h1", 22, kTimedOut, {false, "Recovery check timed out."}},
      {"h1", 22, {"out", "nc: connect failed", 1, false}, {false, "nc: connect failed"}},
      {"h1", 22, says("", 1), {false, "Mac is not reachable."}},
      {"-X", 22, says("", 0), {false, "Invalid hostname."}},
      {"h1", 65536, says("", 0), {false, "Invalid SSH port."}},
  };
  for (const auto& [host, port, reply, expected] : cases) {
    SCOPED_TRACE(expected.message);
    Tools nc;
    nc.otherwise = reply;
    EXPECT_EQ(CompanionReachabilityService(nc).checkSSH(host, port), expected);
    EXPECT_EQ(nc.calls.empty(), refusedUpfront(expected.message));
  }
}

TEST(SSHUnlockCommandBuilderTest, QuotesWhatTheShellWouldRead) {
  EXPECT_EQ(SSHUnlockCommandBuilder::shellEscaped("A-z_0.9"), "A-z_0.9");
  EXPECT_EQ(SSHUnlockCommandBuilder::shellEscaped("o'neil $(x)"), "'o'\\''neil $(x)'");
}

}  // namespace
}  // namespace harborkeeper
