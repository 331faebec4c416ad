#include "cli/helper_commands.h"

#include <memory>

#include "core/platform/boot_time.h"
#include "core/protection/file_vault_users.h"
#include "core/protection/protection_status.h"

namespace harborkeeper::cli {

namespace {

ExitStatus printVersion(CliContext& context) {
  context.out() << context.helper().helperVersion() << '\n';
  return ExitStatus::success;
}

ExitStatus printUsers(CliContext& context, bool json) {
  const auto data = context.helper().fileVaultUsersData();
  if (!data) throw CommandError("The helper could not list FileVault-enabled users.");
  return context.print(usersReport(decodeReply(*data, FileVaultUserList::decode), json));
}

ExitStatus printStatus(CliContext& context, bool json) {
  const auto data = context.helper().protectionStatusData();
  if (!data) throw CommandError("No protection status is recorded.");
  const auto status = decodeReply(*data, HelperProtectionStatus::decode);
  return context.print(statusReport(status, BootTime::currentBootDate(), json));
}

// A subcommand whose only option is --json.
void addRecordCommand(CLI::App& app, CliContext& context, const std::string& name,
                      const std::string& description, ExitStatus (*print)(CliContext&, bool)) {
  CLI::App* command = app.add_subcommand(name, description);
  // Shared with the action, which runs after parsing.
  auto json = std::make_shared<bool>(false);
  CliContext::addJsonFlag(*command, *json);
  context.onRun(*command, [&context, json, print] { return print(context, *json); });
}

}  // namespace

void registerHelperCommands(CLI::App& app, CliContext& context) {
  CLI::App* version = app.add_subcommand("version", "Print the helper's version");
  context.onRun(*version, [&context] { return printVersion(context); });
  addRecordCommand(app, context, "users", "List the FileVault-enabled users the helper reports", printUsers);
  addRecordCommand(app, context, "status", "Show the helper's record of its last protection attempt",
                   printStatus);
}

}  // namespace harborkeeper::cli
