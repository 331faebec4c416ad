// Faults of the daemon's surroundings, injected under the real daemon: a full
// or read-only state directory, tools that crash, hang or print nonsense, and a
// trusted-client registry rewritten under running clients. Each fault must end
// in its own reply, leave the state its rules say, and never stop the daemon
// serving.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <map>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>

#include <gtest/gtest.h>

#include "core/foundation/json.h"
#include "core/protection/file_vault_users.h"
#include "core/protection/protection_status.h"

#include "tests/integration/daemon_harness.h"
#include "tests/integration/throwaway_user.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using Mode = HelperProtectionMode;

constexpr std::string_view kEnabled = "Persistent protection is enabled and the next restart is armed.";
constexpr std::string_view kStatusFile = "ProtectionStatus.plist";
constexpr std::string_view kSealedFile = "PersistentCredential.cred";
constexpr std::string_view kHeartbeatFile = "DockerHeartbeat.plist";
constexpr std::string_view kFiller = "filler";

// Mounts made here must not outlive the test, even one that dies before its
// guards run: they live in a mount namespace of this process and the daemons
// it starts, which the kernel drops with them. 0, or why it failed.
int enterOwnMountNamespace() {
  static const int failure = [] {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      return errno;
    }
    return 0;
  }();
  return failure;
}

// A 64 KiB tmpfs over `path` while the object lives.
class TmpfsMount final {
 public:
  explicit TmpfsMount(fs::path path) : path_(std::move(path)) { mount(0, "size=64k,mode=0700"); }
  ~TmpfsMount() {
    // Lazily if something still has it open: the mount goes either way.
    if (::umount2(path_.c_str(), 0) != 0) ::umount2(path_.c_str(), MNT_DETACH);
  }
  TmpfsMount(const TmpfsMount&) = delete;
  TmpfsMount& operator=(const TmpfsMount&) = delete;

  void remountReadOnly() const { mount(MS_REMOUNT | MS_RDONLY, nullptr); }

 private:
  void mount(unsigned long flags, const char* options) const {
    if (::mount("tmpfs", path_.c_str(), "tmpfs", flags | MS_NOSUID | MS_NODEV, options) != 0) {
      throw std::system_error(errno, std::generic_category(), "mount " + path_.string());
    }
  }

  fs::path path_;
};

// Fills the file system that holds `file` to its last byte, with `file`.
void fillUp(const fs::path& file) {
  const UniqueFd fd(::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  ASSERT_TRUE(fd) << file;
  const std::string chunk(65536, '\0');
  for (const std::size_t size : {chunk.size(), std::size_t{1}}) {
    while (::write(fd.get(), chunk.data(), size) > 0) {
    }
  }
  ASSERT_EQ(errno, ENOSPC);
}

CliOutcome failed(const std::string& message) { return {1, "", "harborkeeper: " + message}; }
CliOutcome succeeded(std::string_view message) { return {0, std::string(message), ""}; }

// The daemon with a throwaway PAM user, the stand-in fdesetup and a
// systemd-creds that is the real one until told to misbehave.
class FaultTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    if (IsSkipped()) return;
    const int failure = enterOwnMountNamespace();
    ASSERT_EQ(failure, 0) << "no mount namespace of our own: " << std::generic_category().message(failure);
    user = std::make_unique<ThrowawayUser>(password);
    const std::string creds = copyExecutable(fs::path(HARBORKEEPER_TEST_TOOLS_DIR) / "fault_systemd_creds.sh",
                                             credsTools.path() / "bin/systemd-creds", fs::perms(0755));
    daemon = std::make_unique<Daemon>(
        "fault_fdesetup.py", std::vector<std::string>{},
        std::vector<std::string>{"--pam-dir", HARBORKEEPER_PAM_DIR, "--tool", "systemd-creds=" + creds});
    writeRaw(fdesetupTools() / "list.out", user->name() + ",2F1C3B5A-0000-4000-8000-000000000001\n",
             fs::perms(0644));
  }

  // `verb` of the stand-in fdesetup (list, authrestart) or systemd-creds
  // (encrypt, decrypt) does what `mode` says from now on.
  [[nodiscard]] fs::path modeFile(const std::string& verb) const {
    const bool creds = verb == "encrypt" || verb == "decrypt";
    return (creds ? credsTools.path() / "bin" : fdesetupTools()) / (verb + ".mode");
  }
  void toolDoes(const std::string& verb, const std::string& mode) const { writeRaw(modeFile(verb), mode); }
  void allToolsBehave() const {
    for (const char* verb : {"list", "authrestart", "encrypt", "decrypt"}) fs::remove(modeFile(verb));
  }

  CliOutcome arm() const {
    return daemon->cli({"arm", "--user", user->name(), "--password-stdin"}, builtCli(), password + "\n");
  }
  CliOutcome enable() const {
    return daemon->cli({"persistent", "enable", "--user", user->name(), "--password-stdin"}, builtCli(),
                       password + "\n");
  }
  CliOutcome rearm() const { return daemon->cli({"persistent", "arm"}); }
  CliOutcome configure(const std::string& profile) const {
    return daemon->cli({"heartbeat", "configure", "--endpoint", "http://127.0.0.1:9/heartbeat", "--profile",
                        profile, "--interval", "600", "--secret-stdin"},
                       builtCli(), "heartbeat secret 7f3a9c2e51d84b06");
  }

  // The stored heartbeat profile as the daemon loads it.
  [[nodiscard]] std::string heartbeatProfile() const {
    const auto [code, out, error] = daemon->cli({"heartbeat", "status", "--json"});
    return code == 0 ? json::parse(out).value("profileID", std::string()) : error;
  }
  [[nodiscard]] std::optional<HelperProtectionStatus> status() const {
    if (!fs::exists(state() / kStatusFile)) return std::nullopt;
    return HelperProtectionStatus::decode(contentOf(state() / kStatusFile));
  }
  // Every entry of the state directory but the filler, with its bytes.
  [[nodiscard]] std::map<std::string, std::string> stateFiles() const {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::directory_iterator(state())) {
      if (entry.path().filename() != kFiller) files.emplace(entry.path().filename(), contentOf(entry.path()));
    }
    return files;
  }
  [[nodiscard]] std::string stateFile(std::string_view name) const { return (state() / name).string(); }
  [[nodiscard]] fs::path state() const { return daemon->dir / "state"; }
  [[nodiscard]] fs::path fdesetupTools() const { return daemon->dir / "tools"; }

  void expectStillServing() const { EXPECT_EQ(daemon->cli({"version"}), CliOutcome(0, "1.3", "")); }

  // Protection and a heartbeat stored on a tmpfs of their own, for a fault to break.
  void storeOnTmpfs() {
    mount.emplace(state());
    ASSERT_EQ(enable(), succeeded(kEnabled));
    ASSERT_EQ(configure("docker-1"), succeeded("Docker heartbeat is configured."));
  }

  // Each store fails for `cause` with its reply, clears only what its rules
  // say (`rearmClears` for a re-arm that cannot be proven) and the daemon
  // serves on with what was stored before.
  void expectEachStoreFails(const std::string& cause, const std::set<std::string>& rearmClears,
                            const std::string& enableReply) {
    const std::string proof =
        "Harborkeeper could not record protection proof. Harborkeeper could not write protection status. "
        "Could not write " +
        stateFile(kStatusFile) + ": " + cause + ".";
    const struct {
      const char* request;
      std::function<CliOutcome()> send;
      std::string reply;
      std::set<std::string> cleared;
    } faults[] = {
        {"arm", [&] { return arm(); }, "Authenticated restart was armed, but " + proof, {}},
        {"heartbeat configure",
         [&] { return configure("docker-2"); },
         "Docker heartbeat configuration could not be stored. Could not write " + stateFile(kHeartbeatFile) +
             ": " + cause + ".",
         {}},
        {"persistent arm", [&] { return rearm(); }, "Persistent protection was armed, but " + proof,
         rearmClears},
        {"persistent enable", [&] { return enable(); }, enableReply, {}},
    };
    std::map<std::string, std::string> expected = stateFiles();
    for (const auto& fault : faults) {
      SCOPED_TRACE(fault.request);
      EXPECT_EQ(fault.send(), failed(fault.reply));
      for (const std::string& name : fault.cleared) expected.erase(name);
      EXPECT_EQ(stateFiles(), expected);
      expectStillServing();
    }
    EXPECT_EQ(heartbeatProfile(), "docker-1");
  }

  const TemporaryDirectory credsTools;
  const std::string passwordCore = randomLetters(12);
  const std::string password = passwordCore + " &<'>";
  std::unique_ptr<ThrowawayUser> user;
  std::unique_ptr<Daemon> daemon;
  std::optional<TmpfsMount> mount;  // last, so unmounted before the daemon's directory goes
};

TEST_F(FaultTest, FullStateDirectoryFailsEachStoreAndKeepsWhatWasStored) {
  ASSERT_NO_FATAL_FAILURE(storeOnTmpfs());
  ASSERT_NO_FATAL_FAILURE(fillUp(state() / kFiller));
  // The disk fills up again while fdesetup arms, so what a request clears first is no help to it.
  writeRaw(fdesetupTools() / "fill.target", stateFile(kFiller));
  toolDoes("authrestart", "fill");
  // Persistent protection that cannot be proven is taken back.
  expectEachStoreFails(
      "No space left on device", {std::string(kStatusFile), std::string(kSealedFile)},
      "Authenticated restart was armed for the next restart, but persistent protection could "
      "not be stored. The credential could not be stored in the System Keychain. OSStatus -36.");
}

TEST_F(FaultTest, ReadOnlyStateDirectoryRefusesEachStoreAndStillLoads) {
  ASSERT_NO_FATAL_FAILURE(storeOnTmpfs());
  mount->remountReadOnly();
  // Nothing can be cleared either, so every failure leaves everything.
  expectEachStoreFails("Read-only file system", {},
                       "Harborkeeper could not clear the previous automatic unlock state. Could not remove " +
                           stateFile(kStatusFile) + ": Read-only file system.");
  const auto [code, shown, error] = daemon->cli({"status"});
  EXPECT_EQ(code, 0) << error;
  EXPECT_EQ(shown.substr(0, shown.rfind('\n')), "Protected for future restarts\n" + std::string(kEnabled));
}

// A request against a tool that misbehaves: its reply, recorded as the failed
// attempt's status, and whether the sealed credential is still there. Only a
// re-arm starts with protection enabled.
TEST_F(FaultTest, ToolsThatCrashOrPrintGarbage) {
  const std::string unreadable =
      "The stored credential could not be read from the System Keychain. OSStatus -26275.";
  const std::string refused = "fdesetup: authrestart refused [user] with [password]";
  const struct {
    const char* verb;
    const char* mode;
    const char* request;  // arm, enable or rearm
    std::string reply;
    bool credentialKept;
  } faults[] = {
      {"list", "crash", "arm",
       "Harborkeeper could not verify FileVault users before arming authenticated restart.", false},
      // Two nonsense lines read as two users, which proves the stored selection wrong.
      {"list", "nul", "rearm",
       "Harborkeeper v1 requires exactly one FileVault-enabled local user before arming authenticated "
       "restart.",
       false},
      {"authrestart", "crash", "arm", refused, false},
      {"authrestart", "crash", "rearm", refused, true},
      {"encrypt", "crash", "enable",
       "Authenticated restart was armed for the next restart, but persistent protection could not be stored. "
       "The credential could not be stored in the System Keychain. OSStatus -25291.",
       false},
      {"decrypt", "crash", "rearm", unreadable, true},
      {"decrypt", "garbage", "rearm", unreadable, true},
  };
  for (const auto& fault : faults) {
    const std::string request = fault.request;
    SCOPED_TRACE(std::string(fault.verb) + " " + fault.mode + " on " + request);
    allToolsBehave();
    ASSERT_EQ(std::get<0>(daemon->cli({"persistent", "disable"})), 0);
    if (request == "rearm") {
      ASSERT_EQ(enable(), succeeded(kEnabled));
    }
    const std::string sealedBefore = contentOf(state() / kSealedFile);
    toolDoes(fault.verb, fault.mode);
    EXPECT_EQ(request == "arm" ? arm() : request == "enable" ? enable() : rearm(), failed(fault.reply));
    const std::optional<HelperProtectionStatus> recorded = status();
    ASSERT_TRUE(recorded);
    const Mode mode = request == "arm" ? Mode::nextRestart : Mode::persistent;
    EXPECT_EQ(*recorded, (HelperProtectionStatus{mode, false, recorded->armedAt, fault.reply}));
    EXPECT_EQ(fs::exists(state() / kSealedFile), fault.credentialKept);
    EXPECT_EQ(contentOf(state() / kSealedFile), fault.credentialKept ? sealedBefore : "");
    expectStillServing();
  }
  EXPECT_EQ(daemon->log().find(passwordCore), std::string::npos);
}

// A list that holds a NUL cannot go into a property list, so that reply
// carries no data; the rest is repaired text or the reason.
TEST_F(FaultTest, UsersReplyWhenTheListCrashesOrIsGarbage) {
  const struct {
    const char* mode;
    std::string reply;  // as JSON; empty for no data
    int exitCode;
    std::string error;
  } cases[] = {
      {"crash", R"({"unavailableReason": "fdesetup list failed with exit code 11.", "users": []})", 1,
       "harborkeeper: Harborkeeper could not list FileVault-enabled users."},
      {"garbage",
       R"({"users": [{"displayName": "\ufffd\ufffd\u0001garbage\u001b[2J"},
                     {"displayName": "\ufffd(", "uuid": "\ufffd\ufffd"}]})",
       0, ""},
      {"nul", "", 1, "harborkeeper: The helper could not list FileVault-enabled users."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.mode);
    toolDoes("list", c.mode);
    const std::optional<Bytes> data = daemon->client()->fileVaultUsersData();
    EXPECT_EQ(data.has_value(), !c.reply.empty());
    if (data && !c.reply.empty()) {
      EXPECT_EQ(FileVaultUserList::decode(asStringView(*data)).toJson(), json::parse(c.reply));
    }
    const auto [code, shown, error] = daemon->cli({"users"});
    EXPECT_EQ(std::pair(code, error), std::pair(c.exitCode, c.error));
  }
  expectStillServing();
}

// One hang per tool, side by side, since each costs its whole 30 s limit: a
// connection's thread waits on `fdesetup list` while the operation queue waits
// on systemd-creds, and the daemon still answers.
TEST_F(FaultTest, HangingToolsAreStoppedAtTheirLimitWhileTheDaemonServes) {
  ASSERT_EQ(enable(), succeeded(kEnabled));
  const std::string sealedBefore = contentOf(state() / kSealedFile);
  toolDoes("list", "hang");
  toolDoes("decrypt", "hang");
  const auto start = std::chrono::steady_clock::now();
  auto users = std::async(std::launch::async, [&] { return daemon->client()->fileVaultUsersData(); });
  auto rearmed = std::async(std::launch::async, [&] { return daemon->client()->armPersistentProtection(); });
  std::this_thread::sleep_for(1s);
  expectStillServing();

  const std::string unavailable =
      "The stored credential could not be read from the System Keychain. OSStatus -25291.";
  EXPECT_EQ(rearmed.get(), (ipc::HelperCommandResult{false, unavailable}));
  EXPECT_EQ(FileVaultUserList::decode(asStringView(users.get().value())).unavailableReason,
            "Command timed out after 30 seconds.");
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_TRUE(elapsed >= 30s && elapsed < 40s) << elapsed.count();
  const std::optional<HelperProtectionStatus> recorded = status();
  ASSERT_TRUE(recorded);
  EXPECT_EQ(*recorded, (HelperProtectionStatus{Mode::persistent, false, recorded->armedAt, unavailable}));
  EXPECT_EQ(contentOf(state() / kSealedFile), sealedBefore) << "kept for a later attempt";
  expectStillServing();
}

// The registry is read afresh for every connection, so rewriting it under
// running clients must never crash the daemon or answer wrongly: every call
// gets "1.3" or a connection closed without a reply.
TEST_F(DaemonTest, RegistryReplacedUnderRunningClients) {
  const std::string self = fs::canonical("/proc/self/exe").string();
  const Daemon daemon("fdesetup_lists_two_users.sh", {self}, {}, false);
  const fs::path registry = daemon.dir / "registry.plist";
  const std::string trusting = trustedClientRegistry({builtCli(), self});
  const std::string distrusting = trustedClientRegistry({"/usr/bin/true"});
  const std::function<void(const std::string&)> replace[] = {
      [&](const std::string& document) {
        writeRaw(daemon.dir / "registry.new", document, fs::perms(0644));
        fs::rename(daemon.dir / "registry.new", registry);
      },
      [&](const std::string& document) { writeRaw(registry, document, fs::perms(0644)); },  // truncated first
  };

  std::atomic<bool> done{false};
  std::atomic<std::size_t> answered{0};
  std::atomic<std::size_t> refused{0};
  std::mutex mutex;
  std::vector<std::string> wrong;
  const auto keepCalling = [&] {
    while (!done) {
      std::optional<std::string> reply;  // none: closed without one
      try {
        reply = daemon.client()->helperVersion();
      } catch (const ipc::HelperClientError& error) {
        if (error.kind() != ipc::HelperClientError::Kind::connectionClosed) reply = error.what();
      }
      if (!reply) {
        ++refused;
      } else if (*reply == "1.3") {
        ++answered;
      } else {
        const std::lock_guard lock(mutex);
        wrong.push_back(*reply);
      }
    }
  };
  std::vector<std::thread> clients;
  while (clients.size() < 8) clients.emplace_back(keepCalling);
  const auto end = std::chrono::steady_clock::now() + 3s;
  for (std::size_t round = 0; std::chrono::steady_clock::now() < end; ++round) {
    replace[round % 2](round / 2 % 2 == 0 ? distrusting : trusting);
    std::this_thread::sleep_for(2ms);
  }
  done = true;
  for (std::thread& client : clients) client.join();

  EXPECT_EQ(wrong, std::vector<std::string>{});
  EXPECT_GT(answered.load(), 0U);
  EXPECT_GT(refused.load(), 0U);
  EXPECT_TRUE(eventually([&] { return daemon.logLines("Refused a client: ") == refused; }))
      << daemon.logLines("Refused a client: ") << " logged, " << refused.load() << " refused";
  // Once it settles, the file alone decides, and one caught half written refuses
  // (an empty or otherwise invalid one is the peer check's unit test).
  const CliOutcome closed{3, "",
                          "harborkeeper: The Harborkeeper helper closed the connection without replying."};
  const std::pair<std::string, CliOutcome> settled[] = {
      {distrusting, closed}, {trusting.substr(0, trusting.size() / 2), closed}, {trusting, {0, "1.3", ""}}};
  for (const auto& [document, outcome] : settled) {
    replace[1](document);
    EXPECT_EQ(daemon.cli({"version"}), outcome) << document;
  }
}

}  // namespace
}  // namespace harborkeeper
