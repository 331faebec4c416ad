#pragma once

#include <CLI/CLI.hpp>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "cli/cli_context.h"

// Exporting the recovery profiles for a local unlocker agent (Docker or
// Windows). The export names machines and accounts but never a secret.
namespace harborkeeper::cli {

// export docker, export windows
void registerExportCommands(CLI::App& app, CliContext& context);

// Why `exported` must not be handed out: "The export mentions \"WORD\" (in a
// profile name, user name, host or option); nothing was written." for the
// first blocklisted field name it contains; nothing when it is clean.
std::optional<std::string> exportRefusal(std::string_view exported);

// Replaces `file` with `content`, readable by its owner only: a temporary file
// in the same directory, fsync, rename over `file`, fsync of the directory, so
// a crash leaves the old file or the new one. Throws CommandError naming the
// file; on failure no temporary file remains and the old file is intact.
void writePrivateFileAtomically(const std::filesystem::path& file, std::string_view content);

}  // namespace harborkeeper::cli
