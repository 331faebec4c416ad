#include <string>
#include <utility>

#include "core/foundation/text.h"
#include "core/recovery/companion_recovery_service.h"

namespace harborkeeper {

namespace {

// nc's own 3-second connect limit lies inside the runner's 5.
constexpr double kReachabilityTimeout = 5;

}  // namespace

CompanionReachabilityService::CompanionReachabilityService(const CommandExecutor& runner,
                                                           RecoveryToolPaths tools)
    : runner_(runner), tools_(std::move(tools)) {}

CompanionReachabilityResult CompanionReachabilityService::checkSSH(std::string_view host,
                                                                   std::int64_t port) const {
  const std::string trimmedHost = text::trimmed(host);
  if (trimmedHost.empty()) return {false, "Missing hostname."};
  // nc would take such a host for an option.
  if (text::startsWith(trimmedHost, "-")) return {false, "Invalid hostname."};
  if (port < 1 || port > 65535) return {false, "Invalid SSH port."};

  const CommandResult result = runner_.run(tools_.nc, {"-w", "3", "-z", trimmedHost, std::to_string(port)},
                                           std::nullopt, kReachabilityTimeout);
  if (result.exitCode == 0) return {true, "Mac is reachable."};
  if (result.timedOut) return {false, "Recovery check timed out."};
  if (!result.standardError.empty()) return {false, result.standardError};
  if (!result.standardOutput.empty()) return {false, result.standardOutput};
  return {false, "Mac is not reachable."};
}

}  // namespace harborkeeper
