#include "tests/integration/locked_mac_sshd.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "core/foundation/uuid.h"

namespace harborkeeper::testing_support {
namespace {

constexpr std::string_view kLockedBanner =
    "This system is locked. To unlock it, use a local account name and password.";

CommandResult runTool(const std::string& tool, const std::vector<std::string>& arguments) {
  CommandResult result = CommandRunner(30).run(tool, arguments);
  if (result.exitCode != 0) throw std::runtime_error(tool + ": " + result.standardError);
  return result;
}

// A TCP socket bound to address:port; port 0 picks a free one, and `port`
// becomes the one bound.
UniqueFd boundSocket(const std::string& text, std::uint16_t& port) {
  UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  socklen_t length = sizeof(address);
  if (!fd || ::inet_pton(AF_INET, text.c_str(), &address.sin_addr) != 1 ||
      ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
      ::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::system_error(errno, std::generic_category(), "no TCP socket on " + text);
  }
  port = ntohs(address.sin_port);
  return fd;
}

}  // namespace

LockedMacSshd::LockedMacSshd()
    : password_(randomLetters(10) + "-" + randomLetters(10)),
      fileVaultUser_(password_),
      normalUser_(randomLetters(24)) {     // unknown to anyone until unlocked
  fs::permissions(dir_, fs::perms(0755));  // the forced command runs as the FileVault user
  fs::create_directory(dir_ / "flag");
  const passwd* owner = ::getpwnam(fileVaultUser().c_str());  // NOLINT(concurrency-mt-unsafe): setup only
  if (owner == nullptr || ::chown((dir_ / "flag").c_str(), owner->pw_uid, owner->pw_gid) != 0) {
    throw std::runtime_error("cannot hand the flag directory to " + fileVaultUser());
  }
  fs::copy_file(fs::path(HARBORKEEPER_TEST_TOOLS_DIR) / "locked_mac_forced_command.sh", dir_ / "unlock.sh");
  fs::permissions(dir_ / "unlock.sh", fs::perms(0755));
  writeRaw(dir_ / "banner", std::string(kLockedBanner) + "\n", fs::perms(0644));
  fs::create_directories("/run/sshd");  // privilege separation
  fs::permissions("/run/sshd", fs::perms(0755));
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
  watcher_ = std::jthread([this](const std::stop_token& stop) {
    std::error_code ignored;
    for (; !stop.stop_requested(); std::this_thread::sleep_for(20ms)) {
      if (!unlocked_ && fs::exists(dir_ / "flag/unlocked", ignored)) unlock();
    }
  });
}

LockedMacSshd::~LockedMacSshd() {
  watcher_ = {};  // stops and joins
  sshd_.stop();
}

std::string LockedMacSshd::hostKeyFingerprint() const {
  std::istringstream words(
      runTool("/usr/bin/ssh-keygen", {"-E", "sha256", "-lf", dir_ / "host_key.pub"}).standardOutput);
  std::string word;
  words >> word >> word;  // bits, then the fingerprint
  return word;
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
  start();
}

bool LockedMacSshd::unlock() {
  const std::scoped_lock lock(unlocking_);
  if (unlocked_) return true;
  // sshd reads the banner file for every connection and the password database
  // at each login; an empty password is the normal user's way in.
  const std::ofstream emptied(dir_ / "banner", std::ios::trunc);
  unlocked_ = runAccountTool("/usr/bin/passwd", {"-d", normalUser()}).exitCode == 0;
  return unlocked_;
}

// With a new host key each time.
void LockedMacSshd::start() {
  const std::string dir = dir_.string();
  fs::remove(dir_ / "host_key");
  fs::remove(dir_ / "host_key.pub");
  runTool("/usr/bin/ssh-keygen", {"-q", "-t", "ed25519", "-N", "", "-C", "", "-f", dir + "/host_key"});
  std::ostringstream config;
  config << "ListenAddress " << host() << ":" << port_ << "\nHostKey " << dir << "/host_key\nPidFile " << dir
         << "/sshd.pid\n"
         << "UsePAM no\nStrictModes no\nPermitRootLogin no\nAuthorizedKeysFile none\n"
         << "PubkeyAuthentication no\nKbdInteractiveAuthentication no\nPasswordAuthentication yes\n"
         << "PermitEmptyPasswords yes\nMaxStartups 100\nPrintMotd no\nPrintLastLog no\nLogLevel INFO\n"
         << "AllowUsers " << fileVaultUser() << " " << normalUser() << "\nBanner " << dir << "/banner\n"
         << "Match User " << fileVaultUser() << "\n  ForceCommand " << dir << "/unlock.sh " << dir
         << "/flag/unlocked\n";
  writeRaw(dir_ / "sshd_config", config.str(), fs::perms(0600));
  const std::size_t before = logLines("Server listening on");
  sshd_ = ChildProcess({"/usr/sbin/sshd", "-D", "-e", "-f", dir + "/sshd_config"}, dir + "/sshd.log", false);
  if (!eventually([&] { return sshd_.hasExited() || logLines("Server listening on") > before; }, 10s) ||
      sshd_.hasExited()) {
    throw std::runtime_error("sshd did not start:\n" + log());
  }
}

std::uint16_t unusedLoopbackPort() {
  std::uint16_t port = 0;
  boundSocket("127.0.0.1", port);
  return port;
}

Tarpit::Tarpit(const std::vector<std::string>& addresses, std::uint16_t port) : port_(port) {
  for (const std::string& address : addresses) {
    UniqueFd fd = boundSocket(address, port_);
    if (::listen(fd.get(), SOMAXCONN) != 0) {
      throw std::system_error(errno, std::generic_category(), "tarpit on " + address);
    }
    listeners_.push_back(std::move(fd));
  }
}

}  // namespace harborkeeper::testing_support
