#include "cli/approval_commands.h"

namespace harborkeeper::cli {

void registerApprovalCommands(CLI::App& /*app*/, CliContext& /*context*/) {}

}  // namespace harborkeeper::cli
