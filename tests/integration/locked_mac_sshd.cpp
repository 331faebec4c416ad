#include "tests/integration/locked_mac_sshd.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "core/foundation/uuid.h"

namespace harborkeeper::testing_support {
namespace {

// Parallel test programs add users too; useradd and friends fail rather than
// wait while another holds the account files' lock.
CommandResult runAccountTool(const std::string& tool, const std::vector<std::string>& arguments,
                             std::optional<std::string_view> input = std::nullopt) {
  static std::mutex oneAtATime;
  const std::scoped_lock lock(oneAtATime);
  CommandResult result;
  for (int attempt = 0; attempt < 30; ++attempt) {
    result = CommandRunner(30).run(tool, arguments, input);
    if (result.exitCode == 0) break;
    std::this_thread::sleep_for(100ms);
  }
  return result;
}

// User and group id of an account.
std::optional<std::pair<uid_t, gid_t>> accountIds(const std::string& name) {
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> buffer(16384);
  if (::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) {
    return std::nullopt;
  }
  return std::pair(entry.pw_uid, entry.pw_gid);
}

std::string secondWord(const std::string& text) {
  std::istringstream words(text);
  std::string word;
  words >> word >> word;
  return word;
}

}  // namespace

std::string randomLetters(std::size_t count) {
  static std::mutex mutex;
  static std::mt19937_64 generator{std::random_device{}()};
  const std::scoped_lock lock(mutex);
  std::uniform_int_distribution<int> letter('a', 'z');
  std::string text;
  while (text.size() < count) text.push_back(static_cast<char>(letter(generator)));
  return text;
}

ThrowawayUser::ThrowawayUser(std::string_view password) {
  CommandResult added;
  for (int attempt = 0; attempt < 5 && added.exitCode == 0 && name_.empty(); ++attempt) {
    const std::string candidate = randomLetters(8);
    if (accountIds(candidate)) continue;
    added = runAccountTool("/usr/sbin/useradd", {"-m", "-s", "/bin/sh", candidate});
    if (added.exitCode == 0) name_ = candidate;
  }
  if (name_.empty()) throw std::runtime_error("useradd failed: " + added.standardError);
  const std::string line = name_ + ":" + std::string(password) + "\n";
  const CommandResult set = runAccountTool("/usr/sbin/chpasswd", {}, line);
  if (set.exitCode != 0) {
    runAccountTool("/usr/sbin/userdel", {"-f", "-r", name_});
    throw std::runtime_error("chpasswd failed: " + set.standardError);
  }
}

ThrowawayUser::~ThrowawayUser() {
  // -f: sshd may still be closing a session of the user.
  runAccountTool("/usr/sbin/userdel", {"-f", "-r", name_});
}

bool ThrowawayUser::clearPassword() const {
  return runAccountTool("/usr/bin/passwd", {"-d", name_}).exitCode == 0;
}

LockedMacSshd::LockedMacSshd()
    : password_(randomLetters(10) + "-" + randomLetters(10)),
      fileVaultUser_(password_),
      normalUser_(randomLetters(24)) {     // unknown to anyone until unlocked
  fs::permissions(dir_, fs::perms(0755));  // the forced command runs as the FileVault user
  fs::create_directory(dir_ / "flag");
  const auto owner = accountIds(fileVaultUser());
  if (!owner || ::chown((dir_ / "flag").c_str(), owner->first, owner->second) != 0) {
    throw std::runtime_error("cannot hand the flag directory to " + fileVaultUser());
  }
  fs::copy_file(fs::path(HARBORKEEPER_TEST_TOOLS_DIR) / "locked_mac_forced_command.sh", dir_ / "unlock.sh");
  fs::permissions(dir_ / "unlock.sh", fs::perms(0755));
  writeRaw(dir_ / "banner", std::string(lockedBanner) + "\n", fs::perms(0644));
  fs::create_directories("/run/sshd");  // privilege separation
  fs::permissions("/run/sshd", fs::perms(0755));
  generateHostKey();
  for (int attempt = 1;; ++attempt) {
    port_ = unusedLoopbackPort();
    try {
      start();
      break;
    } catch (const std::exception&) {
      // Another program may have taken the port in between.
      if (attempt == 5 || log().find("Address already in use") == std::string::npos) throw;
    }
  }
  watcher_ = std::jthread([this](const std::stop_token& stop) { watchForUnlock(stop); });
}

LockedMacSshd::~LockedMacSshd() {
  watcher_.request_stop();
  if (watcher_.joinable()) watcher_.join();
  sshd_.stop();
}

std::string LockedMacSshd::hostKeyFingerprint() const {
  const CommandResult result =
      CommandRunner(10).run("/usr/bin/ssh-keygen", {"-E", "sha256", "-lf", dir_ / "host_key.pub"});
  if (result.exitCode != 0) throw std::runtime_error("ssh-keygen -lf: " + result.standardError);
  return secondWord(result.standardOutput);
}

RecoveryProfile LockedMacSshd::profile() const {
  RecoveryProfile profile;
  profile.id = uuid::makeV4();
  profile.macName = "Studio";
  profile.localHostname = host();
  profile.sshPort = port_;
  profile.fileVaultUsername = fileVaultUser();
  profile.normalSSHUsername = normalUser();
  return profile;
}

void LockedMacSshd::restartWithNewHostKey() {
  sshd_.stop();
  generateHostKey();
  start();
}

bool LockedMacSshd::unlock() {
  const std::scoped_lock lock(unlocking_);
  if (unlocked_) return true;
  // sshd reads the banner file for every connection and the password database at each login.
  const std::ofstream emptied(dir_ / "banner", std::ios::trunc);
  unlocked_ = normalUser_.clearPassword();
  return unlocked_;
}

void LockedMacSshd::generateHostKey() const {
  fs::remove(dir_ / "host_key");
  fs::remove(dir_ / "host_key.pub");
  const CommandResult result = CommandRunner(30).run(
      "/usr/bin/ssh-keygen", {"-q", "-t", "ed25519", "-N", "", "-C", "", "-f", dir_ / "host_key"});
  if (result.exitCode != 0) throw std::runtime_error("ssh-keygen: " + result.standardError);
}

void LockedMacSshd::writeConfig() const {
  const std::string dir = dir_.string();
  std::ostringstream config;
  config << "ListenAddress " << host() << ":" << port_ << "\nHostKey " << dir << "/host_key\nPidFile " << dir
         << "/sshd.pid\n"
         << "UsePAM no\nStrictModes no\nPermitRootLogin no\nAuthorizedKeysFile none\n"
         << "PubkeyAuthentication no\nKbdInteractiveAuthentication no\nPasswordAuthentication yes\n"
         // The normal user's password is emptied at unlock: that is its way in.
         << "PermitEmptyPasswords yes\nMaxStartups 100\nPrintMotd no\nPrintLastLog no\nLogLevel INFO\n"
         << "AllowUsers " << fileVaultUser() << " " << normalUser() << "\nBanner " << dir << "/banner\n"
         << "Match User " << fileVaultUser() << "\n  ForceCommand " << dir << "/unlock.sh " << dir
         << "/flag/unlocked\n";
  writeRaw(dir_ / "sshd_config", config.str(), fs::perms(0600));
}

void LockedMacSshd::start() {
  writeConfig();
  const std::size_t before = logLines("Server listening on");
  sshd_ = ChildProcess({"/usr/sbin/sshd", "-D", "-e", "-f", dir_ / "sshd_config"}, dir_ / "sshd.log", false);
  if (!eventually([&] { return sshd_.hasExited() || logLines("Server listening on") > before; }, 10s) ||
      sshd_.hasExited()) {
    throw std::runtime_error("sshd did not start:\n" + log());
  }
}

void LockedMacSshd::watchForUnlock(const std::stop_token& stop) {
  const fs::path flag = dir_ / "flag/unlocked";
  while (!stop.stop_requested()) {
    std::error_code ignored;
    if (!unlocked_ && fs::exists(flag, ignored)) unlock();
    std::this_thread::sleep_for(20ms);
  }
}

std::uint16_t unusedLoopbackPort() {
  const UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  if (!fd || ::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::system_error(errno, std::generic_category(), "no free loopback port");
  }
  return ntohs(address.sin_port);
}

Tarpit::Tarpit(const std::vector<std::string>& addresses, std::uint16_t port) : port_(port) {
  for (const std::string& text : addresses) {
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port_);
    socklen_t length = sizeof(address);
    if (!fd || ::inet_pton(AF_INET, text.c_str(), &address.sin_addr) != 1 ||
        ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        ::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(fd.get(), SOMAXCONN) != 0 ||
        ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::system_error(errno, std::generic_category(), "tarpit on " + text);
    }
    port_ = ntohs(address.sin_port);
    listeners_.push_back(std::move(fd));
  }
}

CommandResult RecordingExecutor::run(const std::string& executable, const std::vector<std::string>& arguments,
                                     std::optional<std::string_view> standardInput,
                                     std::optional<double> timeout) const noexcept {
  {
    const std::scoped_lock lock(mutex_);
    calls_.push_back(
        {executable, arguments, standardInput ? std::optional<std::string>(*standardInput) : std::nullopt});
  }
  return runner_.run(executable, arguments, standardInput, timeout);
}

std::vector<ToolCall> RecordingExecutor::calls() const {
  const std::scoped_lock lock(mutex_);
  return calls_;
}

ProcessScan::ProcessScan(std::string secret, std::string witness)
    : secret_(std::move(secret)),
      witness_(std::move(witness)),
      thread_([this](const std::stop_token& stop) { scan(stop); }) {}

ProcessScan::Findings ProcessScan::finish() {
  thread_.request_stop();
  if (thread_.joinable()) thread_.join();
  findings_.witnessed = witnessedPids_.size();
  return findings_;
}

void ProcessScan::scan(const std::stop_token& stop) {
  const std::string witness = std::string(1, '\0') + witness_ + '\0';
  while (!stop.stop_requested()) {
    std::error_code error;
    for (fs::directory_iterator entry("/proc", error), end; !error && entry != end; entry.increment(error)) {
      const std::string pid = entry->path().filename();
      if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
      const std::string commandLine = '\0' + contentOf(entry->path() / "cmdline");
      if (commandLine.find(secret_) != std::string::npos) findings_.leaks.insert(pid + " cmdline");
      if (contentOf(entry->path() / "environ").find(secret_) != std::string::npos) {
        findings_.leaks.insert(pid + " environ");
      }
      if (commandLine.find(witness) != std::string::npos) witnessedPids_.insert(pid);
    }
    ++findings_.rounds;
    std::this_thread::sleep_for(2ms);
  }
}

}  // namespace harborkeeper::testing_support
