#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <string_view>

#include "cli/cli_context.h"
#include "cli/cli_output.h"
#include "core/provisioning/recovery_agent_link_payload.h"

// The setup links of local unlocker agents: checking one an agent offers and
// making one from a payload. Neither touches the daemon or the profile list.
namespace harborkeeper::cli {

// link parse, link make
void registerLinkCommands(CLI::App& app, CliContext& context);

// `link parse`: "Name", "Type", one "Setup endpoint" per endpoint,
// "Capabilities" (", "-separated, or "none") and "Expires" (ISO 8601), one
// "Label: value" per line, control characters shown as "?" (the text comes
// from whoever made the link). With `json`, the payload's JSON, pretty-printed.
Report linkParseReport(const RecoveryAgentLinkPayload& payload, bool json);

// All of the file at `path`, or of standard input for "-"; at most 1 MiB.
// Throws CommandError naming the file.
std::string readInputText(const std::string& path);

}  // namespace harborkeeper::cli
