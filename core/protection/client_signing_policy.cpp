#include "core/protection/client_signing_policy.h"

#include "core/foundation/text.h"
#include "core/protection/helper_constants.h"

namespace harborkeeper {

namespace {

std::string escaped(const std::string& value) {
  return text::replacingOccurrences(text::replacingOccurrences(value, "\\", "\\\\"), "\"", "\\\"");
}

}  // namespace

const ClientSigningPolicy& ClientSigningPolicy::harborkeeper() {
  static const ClientSigningPolicy policy{std::string(HelperConstants::appBundleIdentifier),
                                          std::string(HelperConstants::developerTeamIdentifier)};
  return policy;
}

const ClientSigningPolicy& ClientSigningPolicy::harborkeeperHelper() {
  static const ClientSigningPolicy policy{std::string(HelperConstants::machServiceName),
                                          std::string(HelperConstants::developerTeamIdentifier)};
  return policy;
}

std::string ClientSigningPolicy::codeRequirementString() const {
  return "identifier \"" + escaped(allowedSigningIdentifier) +
         "\" and anchor apple generic and certificate leaf[subject.OU] = \"" +
         escaped(allowedTeamIdentifier) + "\"";
}

bool ClientSigningPolicy::allows(const ClientSigningInfo& info) const {
  return info.identifier == allowedSigningIdentifier && info.teamIdentifier.has_value() &&
         *info.teamIdentifier == allowedTeamIdentifier;
}

}  // namespace harborkeeper
