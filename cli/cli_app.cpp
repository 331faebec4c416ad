#include "cli/cli_app.h"

#include "cli/approval_commands.h"
#include "cli/cli_context.h"
#include "cli/discovery_commands.h"
#include "cli/export_commands.h"
#include "cli/helper_commands.h"
#include "cli/link_commands.h"
#include "cli/maintenance_commands.h"
#include "cli/profile_commands.h"
#include "cli/protection_commands.h"
#include "cli/recovery_commands.h"

namespace harborkeeper::cli {

namespace {

constexpr std::string_view kDescription =
    "Harborkeeper keeps a disk-encrypted machine recoverable after a restart.\n"
    "This command is the trusted client of its root helper, and recovers companion\n"
    "machines stuck at the FileVault SSH unlock prompt.";

constexpr std::string_view kFooter =
    "Every command takes --socket PATH and --profiles FILE, before or after its name.\n"
    "Output is for people by default; commands that return a record take --json.\n"
    "Secrets are never taken from arguments or the environment: they are asked for\n"
    "at a prompt without echo, or read from standard input with the command's\n"
    "--...-stdin flag.\n"
    "\n"
    "Exit status: 0 success; 1 the helper reported a failure, the information is\n"
    "not available, or a recovery command failed (see its --help); 2 usage error;\n"
    "3 the helper could not be reached or closed the connection.\n"
    "Run 'harborkeeper COMMAND --help' for a command's options.";

void configure(CLI::App& app, CliContext& context) {
  app.footer(std::string(kFooter));
  app.fallthrough();  // so --socket may follow the command's name
  app.require_subcommand(0, 1);
  context.addGlobalOptions(app);
  registerHelperCommands(app, context);
  registerProtectionCommands(app, context);
  registerMaintenanceCommands(app, context);
  registerProfileCommands(app, context);
  registerRecoveryCommands(app, context);
  registerLinkCommands(app, context);
  registerExportCommands(app, context);
  registerDiscoveryCommands(app, context);
  registerApprovalCommands(app, context);
}

// "harborkeeper users" for an error inside `users`.
std::string commandPath(const CLI::App& app) {
  std::string path = app.get_name();
  for (const CLI::App* command = &app;;) {
    const auto chosen = command->get_subcommands();
    if (chosen.empty()) return path;
    command = chosen.front();
    path += ' ' + command->get_name();
  }
}

int usageError(const CLI::App& app, const CLI::ParseError& error, CliContext& context) {
  const std::string name = error.get_name();
  if (name == "CallForHelp" || name == "CallForAllHelp") return app.exit(error, context.out(), context.err());
  context.printError(error.what());
  context.err() << "Run '" << commandPath(app) << " --help' for usage." << std::endl;
  return static_cast<int>(ExitStatus::usage);
}

int missingCommand(const CLI::App& app, CliContext& context) {
  context.printError("A command is required.");
  context.err() << app.help();
  return static_cast<int>(ExitStatus::usage);
}

// The one place where a command's outcome becomes an exit status.
ExitStatus runChosen(CliContext& context) {
  try {
    return context.chosenAction()();
  } catch (const ipc::HelperClientError& error) {
    context.printError(error.what());
    return ExitStatus::unreachable;
  } catch (const SecretInputError& error) {
    context.printError(error.what());
    return error.kind() == SecretInputError::Kind::noTerminal ? ExitStatus::usage : ExitStatus::failure;
  } catch (const std::exception& error) {  // CommandError and anything unforeseen
    context.printError(error.what());
    return ExitStatus::failure;
  }
}

}  // namespace

int runCli(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  CliContext context(out, err);
  CLI::App app{std::string(kDescription), std::string(programName)};
  configure(app, context);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return usageError(app, error, context);
  }
  if (!context.chosenAction()) return missingCommand(app, context);
  return static_cast<int>(runChosen(context));
}

}  // namespace harborkeeper::cli
