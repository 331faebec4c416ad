#include "cli/cli_context.h"

#include <unistd.h>

namespace harborkeeper::cli {

CommandError CommandError::unreadableReply(const std::exception& reason) {
  return CommandError(std::string("The helper's reply could not be read: ") + reason.what());
}

CliContext::~CliContext() = default;

void CliContext::addGlobalOptions(CLI::App& app) {
  app.add_option("--socket", socketPath_, "Path of the helper's socket")
      ->type_name("PATH")
      ->capture_default_str();
  app.add_option("--profiles", profilesFile_,
                 "File of the recovery profiles (default: $XDG_CONFIG_HOME/harborkeeper/profiles.json, else "
                 "~/.config/harborkeeper/profiles.json)")
      ->type_name("FILE");
}

RecoveryProfileStore CliContext::profileStore() const {
  return RecoveryProfileStore(profilesFile_.empty() ? RecoveryProfileStore::defaultPath()
                                                    : std::filesystem::path(profilesFile_));
}

void CliContext::onRun(CLI::App& command, Action action) {
  command.callback([this, action = std::move(action)] { chosen_ = action; });
}

ipc::HelperClient& CliContext::helper() {
  if (!helper_) helper_ = ipc::HelperClient::connect(socketPath_);
  return *helper_;
}

ExitStatus CliContext::print(const Report& report) {
  out_ << report.output << std::flush;
  if (report.message.empty()) return report.status;
  if (report.status == ExitStatus::success) {
    err_ << report.message << '\n';
  } else {
    printError(report.message);
  }
  return report.status;
}

void CliContext::printError(std::string_view message) { err_ << programName << ": " << message << std::endl; }

ExitStatus CliContext::printOutcome(const ipc::HelperCommandResult& result) {
  // The message may carry a tool's own output: no terminal control sequences.
  const std::string message = printable(result.message);
  if (result.success) return print({message + "\n", "", ExitStatus::success});
  return print({"", message, ExitStatus::failure});
}

CLI::Option* CliContext::addJsonFlag(CLI::App& command, bool& json) {
  return command.add_flag("--json", json, "Print the record as JSON");
}

CLI::Option* CliContext::addSecretStdinFlag(CLI::App& command, const std::string& flag, std::string_view what,
                                            bool& fromStdin) {
  return command.add_flag(flag, fromStdin,
                          "Read the " + std::string(what) +
                              " from the first line of standard input instead of a prompt without echo");
}

SecretText CliContext::readSecret(std::string_view prompt, std::string_view stdinFlag, bool fromStdin) {
  return fromStdin ? readSecretLine(STDIN_FILENO) : promptForSecret(prompt, stdinFlag);
}

}  // namespace harborkeeper::cli
