#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <string_view>
#include <vector>

#include "cli/cli_context.h"
#include "core/recovery/harborkeeper_discovery.h"

// Finding Harborkeeper machines on the local network (discover) and
// announcing this one (advertise), over DNS-SD.
namespace harborkeeper::cli {

inline constexpr std::chrono::seconds defaultDiscoveryTimeout{3};

void registerDiscoveryCommands(CLI::App& app, CliContext& context);

// `discover`: per candidate "NAME<tab>HOST:PORT<tab>ADDRESSES" (NAME followed
// by ' (advertised as "SERVICE")' when the display name is not the service
// name), then the
// pairing session when a pairing window is open, and "[flagged: its record
// mentions a credential]" for a flagged one; "No Harborkeeper machines found."
// as a notice when empty. With `json`, one object per candidate; a flagged
// one's TXT record is left out (it may hold the credential).
Report discoveryReport(const std::vector<RecoveryDiscoveryCandidate>& candidates, bool json);

// The displayable candidate whose service name is `serviceName` (trimmed,
// any case), browsing for `timeout`. CommandError when none answers or it is
// flagged; ServiceDiscoveryError when DNS-SD is not available.
RecoveryDiscoveryCandidate requireDiscoveredCandidate(std::string_view serviceName,
                                                      std::chrono::milliseconds timeout);

}  // namespace harborkeeper::cli
