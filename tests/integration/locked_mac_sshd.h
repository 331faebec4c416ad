#pragma once

// A real sshd on loopback that behaves like a machine waiting at the FileVault
// SSH prompt, with the tools to check what reaches it. Test and benchmark code
// only; needs root (it adds and removes local users).

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/platform/command_runner.h"
#include "core/platform/state_file_test_support.h"
#include "core/platform/unique_fd.h"
#include "core/recovery/recovery_profile.h"

#include "tests/integration/child_process.h"
#include "tests/integration/process_scan.h"
#include "tests/integration/throwaway_user.h"

namespace harborkeeper::testing_support {

// Locked: a pre-authentication banner with the FileVault notice, password
// authentication for the FileVault user (whose forced command "unlocks" the
// machine), and a normal user who cannot get in. Unlocked: no banner, and the
// normal user gets in without any password (ssh -o BatchMode=yes ... exit).
class LockedMacSshd final {
 public:
  LockedMacSshd();
  ~LockedMacSshd();
  LockedMacSshd(const LockedMacSshd&) = delete;
  LockedMacSshd& operator=(const LockedMacSshd&) = delete;

  [[nodiscard]] std::string host() const { return "127.0.0.1"; }
  [[nodiscard]] std::uint16_t port() const { return port_; }
  [[nodiscard]] const std::string& fileVaultUser() const { return fileVaultUser_.name(); }
  [[nodiscard]] const std::string& normalUser() const { return normalUser_.name(); }
  [[nodiscard]] const std::string& password() const { return password_; }

  // "SHA256:..." of the host key sshd serves now, by ssh-keygen -lf.
  [[nodiscard]] std::string hostKeyFingerprint() const;
  // This machine on its own: macName "Studio", localHostname 127.0.0.1, its
  // port and users, no saved key, requireVerifiedHostKey.
  [[nodiscard]] RecoveryProfile profile() const;

  // Stops sshd and starts it again on the same port with a new host key.
  void restartWithNewHostKey();
  // What a correct FileVault password does; the forced command triggers it
  // through a flag file the harness watches.
  bool unlock();
  [[nodiscard]] bool isUnlocked() const { return unlocked_; }

  // sshd's own log (-e).
  [[nodiscard]] std::string log() const { return contentOf(dir_ / "sshd.log"); }
  [[nodiscard]] std::size_t logLines(std::string_view text) const { return linesContaining(log(), text); }

 private:
  void start();

  const std::string password_;
  TemporaryDirectory directory_;
  const fs::path dir_ = directory_.path();
  ThrowawayUser fileVaultUser_;
  ThrowawayUser normalUser_;
  std::uint16_t port_ = 0;
  ChildProcess sshd_;
  std::mutex unlocking_;
  std::atomic<bool> unlocked_{false};
  std::jthread watcher_;
};

// A free TCP port on 127.0.0.1 at the time of the call.
std::uint16_t unusedLoopbackPort();

// TCP listeners that complete every handshake (the kernel does) and never say
// a word: a host whose SSH hangs before the first byte.
class Tarpit final {
 public:
  // Port 0: one the system picks, the same on every address.
  explicit Tarpit(const std::vector<std::string>& addresses, std::uint16_t port = 0);
  [[nodiscard]] std::uint16_t port() const { return port_; }

 private:
  std::vector<UniqueFd> listeners_;
  std::uint16_t port_ = 0;
};

}  // namespace harborkeeper::testing_support
