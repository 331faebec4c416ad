#include "cli/export_commands.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "core/platform/internal/retry.h"
#include "core/platform/state_file_security.h"
#include "core/platform/unique_fd.h"
#include "core/provisioning/local_unlocker_profile_exporter.h"

namespace harborkeeper::cli {

namespace {

namespace fs = std::filesystem;

enum class AgentFormat { docker, windows };

struct ExportOptions {
  std::string approvalWorkerURL;
  std::string listenerID;
  std::string output;
};

[[noreturn]] void failWrite(int errorNumber, const fs::path& file) {
  throw CommandError(FileSystemError(errorNumber, "Could not write", file.string()).what());
}

void writeAll(int fd, std::string_view content, const fs::path& file) {
  while (!content.empty()) {
    const ssize_t count =
        internal::retryOnInterrupt([&] { return ::write(fd, content.data(), content.size()); });
    if (count < 0) failWrite(errno, file);
    content.remove_prefix(static_cast<std::size_t>(count));
  }
}

std::optional<std::string> givenOrNothing(const std::string& value) {
  return value.empty() ? std::nullopt : std::optional<std::string>(value);
}

std::string exportText(AgentFormat format, const std::vector<RecoveryProfile>& profiles,
                       const ExportOptions& o) {
  const auto url = givenOrNothing(o.approvalWorkerURL);
  const auto listener = givenOrNothing(o.listenerID);
  return format == AgentFormat::docker
             ? LocalUnlockerProfileExporter::dockerProfilesJSON(profiles, url, listener)
             : LocalUnlockerProfileExporter::windowsProfilesJSON(profiles, url, listener);
}

ExitStatus exportProfiles(CliContext& context, AgentFormat format, const ExportOptions& options) {
  const std::vector<RecoveryProfile> profiles = context.profileStore().load();
  const std::string exported = exportText(format, profiles, options) + '\n';
  if (const auto refusal = exportRefusal(exported)) throw CommandError(*refusal);
  if (options.output.empty()) {
    context.out() << exported << std::flush;
    return ExitStatus::success;
  }
  writePrivateFileAtomically(options.output, exported);
  const std::size_t count = profiles.size();
  context.out() << "Exported " << count << (count == 1 ? " profile" : " profiles") << " for the "
                << (format == AgentFormat::docker ? "Docker" : "Windows") << " agent to " << options.output
                << ".\n";
  return ExitStatus::success;
}

void addFormatCommand(CLI::App& group, CliContext& context, AgentFormat format, const std::string& name,
                      const std::string& description) {
  auto options = std::make_shared<ExportOptions>();
  CLI::App* command = group.add_subcommand(name, description);
  command->add_option("--approval-worker-url", options->approvalWorkerURL,
                      "Phone-approval service the agent asks before unlocking");
  command->add_option("--listener-id", options->listenerID, "The agent's listener identifier at that service")
      ->type_name("ID");
  command
      ->add_option("--output", options->output, "Write the export to FILE (mode 0600) instead of printing it")
      ->type_name("FILE");
  context.onRun(*command, [&context, format, options] { return exportProfiles(context, format, *options); });
}

}  // namespace

std::optional<std::string> exportRefusal(std::string_view exported) {
  const auto word = LocalUnlockerProfileExporter::sensitiveProfileExportField(exported);
  if (!word) return std::nullopt;
  return "The export mentions \"" + std::string(*word) +
         "\" (in a profile name, user name, host or option); nothing was written.";
}

void writePrivateFileAtomically(const fs::path& file, std::string_view content) {
  const fs::path directory = file.has_parent_path() ? file.parent_path() : fs::path(".");
  std::string temporary = (directory / ("." + file.filename().string() + ".XXXXXX")).string();
  const UniqueFd fd(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!fd) failWrite(errno, file);
  try {
    if (::fchmod(fd.get(), 0600) != 0) failWrite(errno, file);
    writeAll(fd.get(), content, file);
    if (::fsync(fd.get()) != 0) failWrite(errno, file);
    if (::rename(temporary.c_str(), file.c_str()) != 0) failWrite(errno, file);
  } catch (...) {
    ::unlink(temporary.c_str());
    throw;
  }
  const UniqueFd parent(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!parent || ::fsync(parent.get()) != 0) failWrite(errno, file);
}

void registerExportCommands(CLI::App& app, CliContext& context) {
  CLI::App* group = app.add_subcommand(
      "export", "Export the recovery profiles for a local unlocker agent (never a password or other secret)");
  group->require_subcommand(1);
  addFormatCommand(*group, context, AgentFormat::docker, "docker",
                   "The profiles as the Docker agent imports them");
  addFormatCommand(*group, context, AgentFormat::windows, "windows",
                   "The profiles as the Windows agent imports them");
}

}  // namespace harborkeeper::cli
