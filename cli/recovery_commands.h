#pragma once

#include <CLI/CLI.hpp>
#include <string_view>
#include <vector>

#include "cli/cli_context.h"
#include "core/platform/command_runner.h"
#include "core/recovery/companion_recovery_service.h"

// The commands that reach companion machines over SSH: reach, hostkey and
// recovery check/unlock/commands. They read the profile list, never the daemon.
namespace harborkeeper::cli {

void registerRecoveryCommands(CLI::App& app, CliContext& context);

// The tools of one command run. The runner outlives the services built on it.
struct RecoveryTools {
  CommandRunner runner{30};
  CompanionReachabilityService reachability{runner};
  CompanionRecoveryService recovery{runner};
};

// The profile named (or with the id) `nameOrId`; CommandError "No profile
// named NAME." when there is none.
const RecoveryProfile& requireProfile(const std::vector<RecoveryProfile>& profiles,
                                      std::string_view nameOrId);

// For a host or user name that reaches an ssh command line: refuses one that,
// trimmed, is empty or begins with "-" (ssh would read it as an option).
const CLI::Validator& sshArgumentValidator();

// --port N, 1 to 65535.
CLI::Option* addPortOption(CLI::App& command, std::int64_t& port, const std::string& description);

// A subcommand of `group` whose one argument names a profile (or its id).
CLI::App* addProfileNameCommand(CLI::App& group, const std::string& name, const std::string& description,
                                std::string& profile);

}  // namespace harborkeeper::cli
