#pragma once

#include <CLI/CLI.hpp>

#include "cli/cli_context.h"

namespace harborkeeper::cli {

// `profile add|list|show|remove|trust`: the operator's list of companion
// machines (the --profiles file), edited whole: load, change, save.
void registerProfileCommands(CLI::App& app, CliContext& context);

}  // namespace harborkeeper::cli
