#include "cli/recovery_commands.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "cli/recovery_output.h"
#include "core/foundation/text.h"

namespace harborkeeper::cli {

namespace {

constexpr std::string_view kPasswordStdinFlag = "--password-stdin";

// The password must not end up in a core file, nor be readable by a debugger
// attached later by the same user.
void disableCoreDumps() {
  ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
  const rlimit none{0, 0};
  ::setrlimit(RLIMIT_CORE, &none);
}

RecoveryProfile loadProfile(const CliContext& context, std::string_view name) {
  return requireProfile(context.profileStore().load(), name);
}

ExitStatus reach(CliContext& context, const std::string& host, std::int64_t port) {
  const RecoveryTools tools;
  return context.print(reachReport(tools.reachability.checkSSH(text::trimmed(host), port)));
}

ExitStatus hostKey(CliContext& context, const std::string& host, std::int64_t port) {
  const RecoveryTools tools;
  return context.print(hostKeyReport(tools.recovery.captureHostKeyFingerprint(text::trimmed(host), port)));
}

ExitStatus check(CliContext& context, const std::string& name, bool json) {
  const RecoveryProfile profile = loadProfile(context, name);
  const RecoveryTools tools;
  const CompanionRecoveryCheckResult result = tools.recovery.checkRecoveryState(profile);
  return context.print(recoveryCheckReport(result, trustCommand(name, context.profilesFile()), json));
}

ExitStatus unlock(CliContext& context, const std::string& name, bool fromStdin) {
  disableCoreDumps();
  const RecoveryProfile profile = loadProfile(context, name);
  const std::string prompt =
      "FileVault password for " + profile.unlockUsername() + "@" + profile.macName + ": ";
  const SecretText password = CliContext::readSecret(prompt, kPasswordStdinFlag, fromStdin);
  if (password.empty()) throw CommandError("The password is empty; nothing was sent.");
  RecoveryProgress progress;
  if (::isatty(STDERR_FILENO) == 1) {
    progress = [&context](RecoveryStep step, int attempt) {
      context.err() << progressLine(step, attempt) << std::endl;
    };
  }
  const RecoveryTools tools;
  return context.print(
      recoveryUnlockReport(tools.recovery.unlockLockedMac(profile, password.view(), progress)));
}

ExitStatus printCommands(CliContext& context, const std::string& name) {
  for (const std::string& command : SSHUnlockCommandBuilder().commands(loadProfile(context, name))) {
    context.out() << command << '\n';
  }
  return ExitStatus::success;
}

// HOST [--port N]
void addHostCommand(CLI::App& app, CliContext& context, const std::string& name,
                    const std::string& description,
                    ExitStatus (*run)(CliContext&, const std::string&, std::int64_t)) {
  CLI::App* command = app.add_subcommand(name, description);
  auto host = std::make_shared<std::string>();
  auto port = std::make_shared<std::int64_t>(22);
  command->add_option("HOST", *host, "Host name or address")->required()->check(sshArgumentValidator());
  addPortOption(*command, *port, "SSH port");
  context.onRun(*command, [&context, host, port, run] { return run(context, *host, *port); });
}

void registerRecoveryGroup(CLI::App& app, CliContext& context) {
  CLI::App* group =
      app.add_subcommand("recovery", "Check, unlock or print the unlock commands of a profile's machine");
  group->require_subcommand(1);
  auto name = std::make_shared<std::string>();
  auto json = std::make_shared<bool>(false);
  auto fromStdin = std::make_shared<bool>(false);

  CLI::App* checkCommand = addProfileNameCommand(
      *group, "check",
      "Find out, without a password, whether the machine is offline, locked at the FileVault SSH prompt, "
      "booting or online. Exit 1 when it needs attention",
      *name);
  CliContext::addJsonFlag(*checkCommand, *json);
  context.onRun(*checkCommand, [&context, name, json] { return check(context, *name, *json); });

  CLI::App* unlockCommand = addProfileNameCommand(
      *group, "unlock",
      "Type the FileVault password into the machine's SSH unlock prompt once it is found locked. Exit 0 when "
      "it is unlocked, booting or online",
      *name);
  CliContext::addSecretStdinFlag(*unlockCommand, std::string(kPasswordStdinFlag), "FileVault password",
                                 *fromStdin);
  context.onRun(*unlockCommand, [&context, name, fromStdin] { return unlock(context, *name, *fromStdin); });

  CLI::App* commandsCommand = addProfileNameCommand(
      *group, "commands", "Print the ssh commands that unlock the machine by hand, one per host", *name);
  context.onRun(*commandsCommand, [&context, name] { return printCommands(context, *name); });
}

}  // namespace

const RecoveryProfile& requireProfile(const std::vector<RecoveryProfile>& profiles,
                                      std::string_view nameOrId) {
  const RecoveryProfile* profile = RecoveryProfileStore::find(profiles, nameOrId);
  if (profile == nullptr) throw CommandError("No profile named " + std::string(nameOrId) + ".");
  return *profile;
}

const CLI::Validator& sshArgumentValidator() {
  static const CLI::Validator validator(
      [](const std::string& value) {
        const std::string trimmed = text::trimmed(value);
        return trimmed.empty() || trimmed.front() == '-'
                   ? std::string(R"(must not be empty or begin with "-")")
                   : std::string();
      },
      "");
  return validator;
}

CLI::App* addProfileNameCommand(CLI::App& group, const std::string& name, const std::string& description,
                                std::string& profile) {
  CLI::App* command = group.add_subcommand(name, description);
  command->add_option("NAME", profile, "Profile name (or id)")->required();
  return command;
}

CLI::Option* addPortOption(CLI::App& command, std::int64_t& port, const std::string& description) {
  return command.add_option("--port", port, description)
      ->type_name("N")
      ->check(CLI::Range(1, 65535))
      ->capture_default_str();
}

void registerRecoveryCommands(CLI::App& app, CliContext& context) {
  addHostCommand(app, context, "reach", "Check whether HOST answers on its SSH port. Exit 1 when it does not",
                 reach);
  addHostCommand(app, context, "hostkey", "Print the SHA-256 fingerprint of HOST's SSH host key", hostKey);
  registerRecoveryGroup(app, context);
}

}  // namespace harborkeeper::cli
