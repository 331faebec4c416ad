#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/cli_output.h"
#include "core/recovery/companion_recovery_service.h"
#include "core/recovery/recovery_profile.h"

// What the profile and recovery commands print, as pure functions of the
// profiles and the service's results.
namespace harborkeeper::cli {

// "host:port", with an IPv6 address in brackets ("[fe80::1]:22").
std::string hostAndPort(std::string_view host, std::int64_t port);

// `profile list`: "NAME<tab>HOST:PORT<tab>USER<tab>TRUST<tab>identity [not ]captured"
// per profile; "No profiles." as a notice when empty. With `json`, the
// profiles as stored.
Report profileListReport(const std::vector<RecoveryProfile>& profiles, bool json);

// `profile show`: one "Label: value" line per field and derived summary; with
// `json`, the profile as stored.
Report profileShowReport(const RecoveryProfile& profile, bool json);

// "harborkeeper profile trust NAME", with "--profiles FILE" when a file is
// named (empty: the default one); both shell-escaped.
std::string trustCommand(std::string_view profileName, std::string_view profilesFile);

// `recovery check`: "state: message"; when the result asks to confirm a new
// host key, that key and `trustCommand`, the command that trusts it. Fails
// (without a message) only for needsAttention.
Report recoveryCheckReport(const CompanionRecoveryCheckResult& result, std::string_view trustCommand,
                           bool json);

// `recovery unlock`: "state: message"; succeeds only for online, unlocked and booting.
Report recoveryUnlockReport(const CompanionRecoveryCheckResult& result);

// One line per step of an unlock: "Probing...", "Unlocking...",
// "Waiting for the machine 2/3...".
std::string progressLine(RecoveryStep step, int attempt);

// `reach`: the message; fails when not reachable.
Report reachReport(const CompanionReachabilityResult& result);

// `hostkey`: the fingerprint, or fails with the capture's message.
Report hostKeyReport(const CompanionHostKeyCaptureResult& result);

// `profile trust`, before asking: "Host key of HOST:PORT is FINGERPRINT" and,
// when a different one is saved, "Saved host key: PREVIOUS".
std::string hostKeyOffer(std::string_view host, std::int64_t port, std::string_view fingerprint,
                         std::string_view saved);

}  // namespace harborkeeper::cli
