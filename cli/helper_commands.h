#pragma once

#include <CLI/CLI.hpp>

#include "cli/cli_context.h"

namespace harborkeeper::cli {

// The commands that read what the helper reports: version, users, status.
void registerHelperCommands(CLI::App& app, CliContext& context);

}  // namespace harborkeeper::cli
