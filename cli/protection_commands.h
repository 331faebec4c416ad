#pragma once

#include <CLI/CLI.hpp>

#include "cli/cli_context.h"

namespace harborkeeper::cli {

// The commands that arm restart protection: arm, persistent enable|arm|disable.
void registerProtectionCommands(CLI::App& app, CliContext& context);

}  // namespace harborkeeper::cli
