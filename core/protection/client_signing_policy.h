#pragma once

#include <optional>
#include <string>

namespace harborkeeper {

// The identity read from a client's signature (on Linux: from the trusted
// client registry entry that names the client's executable).
struct ClientSigningInfo {
  std::string identifier;
  std::optional<std::string> teamIdentifier;
  bool operator==(const ClientSigningInfo&) const = default;
};

// Which signed client may talk to the helper.
struct ClientSigningPolicy {
  std::string allowedSigningIdentifier;
  std::string allowedTeamIdentifier;
  bool operator==(const ClientSigningPolicy&) const = default;

  // The desktop app: the only client the helper's listener admits.
  static const ClientSigningPolicy& harborkeeper();
  // The helper itself; defined for the app side, unused by the helper.
  static const ClientSigningPolicy& harborkeeperHelper();

  // identifier "<id>" and anchor apple generic and certificate leaf[subject.OU] = "<team>",
  // each value escaped (backslash first, then double quote).
  [[nodiscard]] std::string codeRequirementString() const;

  // Exact, case-sensitive match of both; a missing team identifier never passes.
  [[nodiscard]] bool allows(const ClientSigningInfo& info) const;
};

}  // namespace harborkeeper
