#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "cli/cli_output.h"
#include "cli/secret_input.h"
#include "core/foundation/bytes.h"
#include "core/foundation/plist.h"
#include "core/ipc/helper_client.h"
#include "core/recovery/recovery_profile_store.h"

// What every command area shares for one run of the program: where the daemon
// listens, the output streams, the common flags and how a command's outcome
// becomes an exit status. Each area registers its subcommands with a
// `register...Commands(CLI::App&, CliContext&)` function of its own.
namespace harborkeeper::cli {

inline constexpr std::string_view programName = "harborkeeper";
inline constexpr std::string_view defaultSocketPath = "/run/com.lumaq.Harborkeeper.Helper";

// A failure a command reports itself: what() goes to standard error with the
// program's prefix and the run exits with ExitStatus::failure.
class CommandError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  // "The helper's reply could not be read: <reason>"
  static CommandError unreadableReply(const std::exception& reason);
};

// Decodes a record the daemon sent; a record that does not decode is a
// CommandError (unreadableReply), not a crash.
template <typename Decode>
auto decodeReply(const Bytes& bytes, Decode decode) {
  try {
    return decode(asStringView(bytes));
  } catch (const plist::DecodeError& error) {
    throw CommandError::unreadableReply(error);
  }
}

// One per run; not thread-safe. Commands run after parsing, one per run.
class CliContext final {
 public:
  // The command's body: returns the exit status, or throws CommandError,
  // SecretInputError or ipc::HelperClientError (mapped by runCli).
  using Action = std::function<ExitStatus()>;

  CliContext(std::ostream& out, std::ostream& err) : out_(out), err_(err) {}
  CliContext(const CliContext&) = delete;
  CliContext& operator=(const CliContext&) = delete;
  ~CliContext();

  std::ostream& out() { return out_; }
  std::ostream& err() { return err_; }
  [[nodiscard]] const std::string& socketPath() const { return socketPath_; }
  // The --profiles file as given; empty when the default is used.
  [[nodiscard]] const std::string& profilesFile() const { return profilesFile_; }
  // The recovery profile list: --profiles, or RecoveryProfileStore::defaultPath()
  // (which throws RecoveryProfileStoreError when there is no home directory).
  [[nodiscard]] RecoveryProfileStore profileStore() const;

  // Adds the options every command takes (--socket, --profiles) to the top-level app.
  void addGlobalOptions(CLI::App& app);
  // Makes `action` the one to run when `command` is named on the command line.
  void onRun(CLI::App& command, Action action);
  // The action the parse chose; empty when no command was named.
  [[nodiscard]] const Action& chosenAction() const { return chosen_; }

  // The connection to the daemon, opened on first use. Throws
  // ipc::HelperClientError (unreachable).
  ipc::HelperClient& helper();

  // Writes the report's output and message and returns its status. A message
  // that comes with a failure carries the program's prefix; a notice does not.
  ExitStatus print(const Report& report);
  // "harborkeeper: <message>" on standard error.
  void printError(std::string_view message);
  // A helper action's message is the outcome either way: on standard output
  // when it succeeded, as the program's error when it did not.
  ExitStatus printOutcome(const ipc::HelperCommandResult& result);

  // --json: the record as JSON on standard output.
  static CLI::Option* addJsonFlag(CLI::App& command, bool& json);
  // `flag` (e.g. "--password-stdin"): read `what` from standard input instead
  // of asking at a prompt.
  static CLI::Option* addSecretStdinFlag(CLI::App& command, const std::string& flag, std::string_view what,
                                         bool& fromStdin);
  // The secret from standard input when `fromStdin`, otherwise from `prompt`
  // on the terminal without echo. Throws SecretInputError.
  static SecretText readSecret(std::string_view prompt, std::string_view stdinFlag, bool fromStdin);

 private:
  std::ostream& out_;
  std::ostream& err_;
  std::string socketPath_{defaultSocketPath};
  std::string profilesFile_;
  Action chosen_;
  std::unique_ptr<ipc::HelperClient> helper_;
};

}  // namespace harborkeeper::cli
