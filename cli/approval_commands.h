#pragma once

#include <CLI/CLI.hpp>

#include "cli/cli_context.h"

namespace harborkeeper::cli {

// approval ...: the listener and device sides of phone approval.
void registerApprovalCommands(CLI::App& app, CliContext& context);

}  // namespace harborkeeper::cli
