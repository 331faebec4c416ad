#include "cli/protection_commands.h"

#include <chrono>
#include <memory>
#include <string>

#include "core/foundation/date_time.h"

namespace harborkeeper::cli {

namespace {

constexpr std::string_view passwordFlag = "--password-stdin";

struct CredentialOptions {
  std::string user;
  bool passwordFromStdin = false;
  std::string authorizationExpires;  // empty: an hour from now
};

SecretText readPassword(const CredentialOptions& options) {
  return CliContext::readSecret("Password for " + options.user + ": ", passwordFlag,
                                options.passwordFromStdin);
}

std::string dateProblem(const std::string& text) {
  return date_time::parseInternetDateTime(text)
             ? std::string()
             : "'" + text + "' is not a date and time like 2026-11-23T18:00:00Z";
}

void addCredentialOptions(CLI::App& command, CredentialOptions& options) {
  command.add_option("--user", options.user, "The FileVault user's short name (see 'harborkeeper users')")
      ->type_name("NAME")
      ->required();
  CliContext::addSecretStdinFlag(command, std::string(passwordFlag), "user's password",
                                 options.passwordFromStdin);
}

// The helper is reached before the password is asked for, so nobody types it for nothing.
ExitStatus armNextRestart(CliContext& context, const CredentialOptions& options) {
  ipc::HelperClient& helper = context.helper();
  const SecretText password = readPassword(options);
  return context.printOutcome(helper.armNextRestart(options.user, password.view()));
}

ExitStatus enablePersistent(CliContext& context, const CredentialOptions& options) {
  const Date expires = options.authorizationExpires.empty()
                           ? Date(std::chrono::system_clock::now() + std::chrono::hours(1))
                           : *date_time::parseInternetDateTime(options.authorizationExpires);
  const SecretText password = readPassword(options);
  return context.printOutcome(
      context.helper().enablePersistentProtection(options.user, password.view(), expires));
}

void registerPersistentCommands(CLI::App& app, CliContext& context) {
  CLI::App* persistent = app.add_subcommand(
      "persistent", "Keep the machine recoverable after every restart with a sealed credential");
  persistent->require_subcommand(1);

  auto enableOptions = std::make_shared<CredentialOptions>();
  CLI::App* enable = persistent->add_subcommand(
      "enable",
      "Check the user's password, arm the next restart and seal the credential so the helper re-arms "
      "at every start");
  addCredentialOptions(*enable, *enableOptions);
  enable
      ->add_option("--authorization-expires", enableOptions->authorizationExpires,
                   "When this authorization ends, sent with the request (default: an hour from now)")
      ->type_name("ISO8601")
      ->check(CLI::Validator(dateProblem, ""));
  context.onRun(*enable, [&context, enableOptions] { return enablePersistent(context, *enableOptions); });

  CLI::App* arm = persistent->add_subcommand("arm", "Arm the next restart now from the sealed credential");
  context.onRun(*arm,
                [&context] { return context.printOutcome(context.helper().armPersistentProtection()); });

  CLI::App* disable = persistent->add_subcommand(
      "disable",
      "Remove the sealed credential and the protection record (an already armed restart stays armed)");
  context.onRun(*disable,
                [&context] { return context.printOutcome(context.helper().disablePersistentProtection()); });
}

}  // namespace

void registerProtectionCommands(CLI::App& app, CliContext& context) {
  auto armOptions = std::make_shared<CredentialOptions>();
  CLI::App* arm = app.add_subcommand(
      "arm", "Check the user's password and arm an authenticated restart for the next restart only");
  addCredentialOptions(*arm, *armOptions);
  context.onRun(*arm, [&context, armOptions] { return armNextRestart(context, *armOptions); });
  registerPersistentCommands(app, context);
}

}  // namespace harborkeeper::cli
