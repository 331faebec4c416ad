#include "helper/helper_options.h"

#include <stdlib.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <memory>
#include <system_error>
#include <utility>

namespace harborkeeper {

namespace {

constexpr const char* programName = "harborkeeper-helper";

constexpr const char* description =
    "harborkeeper-helper is Harborkeeper's root daemon. It keeps an unattended, disk-encrypted machine "
    "recoverable after a restart and serves requests from the trusted harborkeeper client over a Unix "
    "socket. Only clients whose executable passes the peer check (root-owned, in root-owned directories, "
    "and listed in the trusted-client registry or given with --trust-client) are served. It is normally "
    "started by systemd (com.lumaq.Harborkeeper.Helper.service), which may also pass the listening socket.";

constexpr const char* footer =
    "Tools: NAME is fdesetup, pmset or systemd-creds; PATH must be absolute.\n"
    "The daemon stops cleanly on SIGTERM or SIGINT; SIGHUP is ignored (the registry is read on every check).";

// Where each --tool NAME is stored.
std::string* toolPath(HelperOptions& options, std::string_view name) {
  if (name == "fdesetup") return &options.fdesetupPath;
  if (name == "pmset") return &options.pmsetPath;
  if (name == "systemd-creds") return &options.systemdCredsPath;
  return nullptr;
}

std::string absolutePathProblem(const std::string& path) {
  return path.starts_with('/') ? std::string() : "'" + path + "' is not an absolute path";
}

CLI::Validator absolutePath() { return {absolutePathProblem, ""}; }

// Checks one NAME=PATH; the dummy options only answer whether NAME is known.
std::string toolProblem(const std::string& spec) {
  const std::size_t equals = spec.find('=');
  if (equals == std::string::npos) return "'" + spec + "' is not NAME=PATH";
  HelperOptions dummy;
  if (toolPath(dummy, spec.substr(0, equals)) == nullptr) {
    return "unknown tool '" + spec.substr(0, equals) + "' (expected fdesetup, pmset or systemd-creds)";
  }
  return absolutePathProblem(spec.substr(equals + 1));
}

// Resolves the path in place, so the registry is matched against what the kernel reports.
std::string canonicalise(std::string& path) {
  const std::unique_ptr<char, decltype(&::free)> resolved(::realpath(path.c_str(), nullptr), &::free);
  if (!resolved) return path + ": " + std::error_code(errno, std::generic_category()).message();
  path = resolved.get();
  return {};
}

struct RawOptions {
  HelperOptions options;
  std::vector<std::string> tools;
  std::string log = "auto";
};

void defineOptions(CLI::App& app, RawOptions& raw) {
  HelperOptions& o = raw.options;
  app.add_option("--socket", o.socketPath, "Unix socket to listen on when systemd passes none")
      ->type_name("PATH")
      ->capture_default_str()
      ->check(absolutePath());
  app.add_option("--state-dir", o.stateDirectory, "Directory of the daemon's private state files")
      ->type_name("PATH")
      ->capture_default_str()
      ->check(absolutePath());
  app.add_option("--trusted-clients", o.trustedClientsPath,
                 "Trusted-client registry (root-owned property list)")
      ->type_name("PATH")
      ->capture_default_str()
      ->check(absolutePath());
  app.add_option("--pam-dir", o.pamServiceDirectory,
                 "Directory holding the PAM service file harborkeeper-helper; passwords are checked with "
                 "that file only, never with the system's default stack")
      ->type_name("PATH")
      ->capture_default_str()
      ->check(absolutePath());
  app.add_option("--trust-client", o.trustedExecutables,
                 "Also trust this executable as the harborkeeper client for this run (repeatable)")
      ->type_name("PATH")
      ->allow_extra_args(false)
      ->transform(CLI::Validator(canonicalise, ""));
  app.add_option("--tool", raw.tools, "Run the tool NAME from PATH instead of its default (repeatable)")
      ->type_name("NAME=PATH")
      ->allow_extra_args(false)
      ->check(CLI::Validator(toolProblem, ""));
  app.add_option("--log", raw.log,
                 "Where log lines go: auto (journald unless on a terminal), journal, stderr")
      ->type_name("MODE")
      ->capture_default_str()
      ->check(CLI::IsMember({"auto", "journal", "stderr"}));
  app.set_version_flag("--version", HelperConstants::helperVersion(), "Print the helper version and exit");
}

HelperOptions finish(RawOptions raw) {
  for (const std::string& spec : raw.tools) {
    const std::size_t equals = spec.find('=');
    *toolPath(raw.options, spec.substr(0, equals)) = spec.substr(equals + 1);
  }
  raw.options.logDestination = raw.log == "journal"  ? LogDestination::journal
                               : raw.log == "stderr" ? LogDestination::standardError
                                                     : LogDestination::automatic;
  return std::move(raw.options);
}

}  // namespace

HelperOptionsOutcome parseHelperOptions(int argc, const char* const* argv, std::ostream& output,
                                        std::ostream& error) {
  try {
    CLI::App app(description, programName);
    app.footer(footer);
    RawOptions raw;
    defineOptions(app, raw);
    try {
      app.parse(argc, argv);
    } catch (const CLI::Success& success) {
      return {std::nullopt, app.exit(success, output, error)};
    }
    return {finish(std::move(raw)), 0};
  } catch (const std::exception& failure) {
    error << programName << ": " << failure.what() << "\nRun " << programName << " --help for usage.\n";
    return {std::nullopt, 2};
  }
}

}  // namespace harborkeeper
