#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "core/ipc/helper_protocol.h"

namespace harborkeeper {

// The directory of local accounts: answers whether a password is the
// account's. Never throws; every problem is a "no".
class AccountDirectory {
 public:
  virtual ~AccountDirectory() = default;
  [[nodiscard]] virtual bool verifyPassword(const std::string& username,
                                            std::string_view password) const noexcept = 0;
};

// Checks through the PAM service `harborkeeper-helper` read from
// `serviceDirectory` only, never the system's default stack: when
// <serviceDirectory>/harborkeeper-helper is missing every check fails. The
// service ships as pam_unix alone, so only local accounts pass. A rejected
// password takes at least `minimumFailureTime` (pam_unix's own delay is
// randomised around two seconds and a service may drop it), so the daemon is
// never a faster password oracle than one try per two seconds. Every copy of
// the password handed to PAM is wiped once the conversation is over.
// Thread-safe.
class PamAccountDirectory final : public AccountDirectory {
 public:
  static constexpr std::string_view serviceName = "harborkeeper-helper";
  static constexpr std::string_view defaultServiceDirectory = "/etc/pam.d";
  static constexpr std::chrono::milliseconds defaultMinimumFailureTime{2000};

  explicit PamAccountDirectory(std::string serviceDirectory = std::string(defaultServiceDirectory),
                               std::chrono::milliseconds minimumFailureTime = defaultMinimumFailureTime);
  [[nodiscard]] bool verifyPassword(const std::string& username,
                                    std::string_view password) const noexcept override;

 private:
  [[nodiscard]] bool authenticate(const std::string& username, std::string_view password) const noexcept;

  std::string serviceDirectory_;
  std::chrono::milliseconds minimumFailureTime_;
};

// The password check before anything is armed or stored. Never throws.
class LocalAccountPasswordVerifier final {
 public:
  explicit LocalAccountPasswordVerifier(std::shared_ptr<const AccountDirectory> directory);
  // The user name is trimmed; the password is checked as given.
  [[nodiscard]] ipc::HelperCommandResult verify(std::string_view username,
                                                std::string_view password) const noexcept;

 private:
  std::shared_ptr<const AccountDirectory> directory_;
};

}  // namespace harborkeeper
