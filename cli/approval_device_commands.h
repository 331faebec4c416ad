#pragma once

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "cli/cli_context.h"

// What a paired phone does, from the command line: keep a P-256 device key,
// register it with the listener, and approve or deny requests. For trying out
// a listener, and for phones that cannot run the app.
namespace harborkeeper::cli {

// approval device init|register|decide, under `approval`. `configFile` is the
// group's --approval-config (empty: the default file), read when the command runs.
void registerApprovalDeviceCommands(CLI::App& approval, CliContext& context,
                                    std::shared_ptr<const std::string> configFile);

// Creates `file` with `content` and mode 0600, refusing one that exists (or a
// link). Throws CommandError naming the file; on failure nothing is left.
void writeNewPrivateFile(const std::filesystem::path& file, std::string_view content);

}  // namespace harborkeeper::cli
