#include "cli/maintenance_commands.h"

#include <memory>
#include <sstream>
#include <string>

#include "core/foundation/json.h"
#include "core/foundation/plist.h"

namespace harborkeeper::cli {

namespace {

constexpr std::string_view secretFlag = "--secret-stdin";
constexpr double defaultIntervalSeconds = 60;

struct HeartbeatOptions {
  std::string endpoint;
  std::string profile;
  double intervalSeconds = defaultIntervalSeconds;
  bool secretFromStdin = false;
};

std::string secondsText(double seconds) {
  std::ostringstream text;
  text << seconds;
  return text.str();
}

// The helper is reached before the secret is asked for, so nobody types it for nothing.
ExitStatus configureHeartbeat(CliContext& context, const HeartbeatOptions& options) {
  ipc::HelperClient& helper = context.helper();
  const SecretText secret = CliContext::readSecret("Heartbeat secret: ", secretFlag, options.secretFromStdin);
  DockerHeartbeatConfiguration configuration{options.endpoint, options.profile, std::string(secret.view()),
                                             options.intervalSeconds};
  const WipeOnExit wipe(configuration);
  return context.printOutcome(helper.configureDockerHeartbeat(configuration.encodeXml()));
}

ExitStatus printHeartbeatStatus(CliContext& context, bool json) {
  const auto data = context.helper().dockerHeartbeatStatusData();
  if (!data) throw CommandError("The helper could not report the heartbeat status.");
  return context.print(heartbeatStatusReport(decodeReply(*data, DockerHeartbeatStatus::decode), json));
}

void registerHeartbeatCommands(CLI::App& app, CliContext& context) {
  CLI::App* heartbeat = app.add_subcommand(
      "heartbeat",
      "Signed heartbeats from the helper to a local unlocker service, so it knows this machine is up");
  heartbeat->require_subcommand(1);

  auto options = std::make_shared<HeartbeatOptions>();
  CLI::App* configure = heartbeat->add_subcommand(
      "configure",
      "Store where and how often to send heartbeats and the secret that signs them, then send one at once");
  configure->add_option("--endpoint", options->endpoint, "The unlocker's heartbeat URL (http or https)")
      ->type_name("URL")
      ->required();
  configure->add_option("--profile", options->profile, "The unlocker profile id this machine belongs to")
      ->type_name("ID")
      ->required();
  configure
      ->add_option("--interval", options->intervalSeconds,
                   "Seconds between beats; the helper keeps it between 30 and 600 (default: 60)")
      ->type_name("SECONDS");
  CliContext::addSecretStdinFlag(*configure, std::string(secretFlag),
                                 "shared secret (at least 24 characters)", options->secretFromStdin);
  context.onRun(*configure, [&context, options] { return configureHeartbeat(context, *options); });

  CLI::App* disable = heartbeat->add_subcommand("disable", "Stop the heartbeat and delete its configuration");
  context.onRun(*disable,
                [&context] { return context.printOutcome(context.helper().disableDockerHeartbeat()); });

  CLI::App* status =
      heartbeat->add_subcommand("status", "Show the heartbeat's configuration (never its secret)");
  auto json = std::make_shared<bool>(false);
  CliContext::addJsonFlag(*status, *json);
  context.onRun(*status, [&context, json] { return printHeartbeatStatus(context, *json); });
}

}  // namespace

Report heartbeatStatusReport(const DockerHeartbeatStatus& status, bool json) {
  if (json) {
    const json::Json record{{"configured", status.configured},
                            {"endpointURL", status.endpointURL},
                            {"profileID", status.profileID},
                            {"intervalSeconds", status.intervalSeconds}};
    return {json::serializePretty(record) + "\n", {}, ExitStatus::success};
  }
  if (!status.configured) return {"Docker heartbeat is not configured.\n", {}, ExitStatus::success};
  const auto beatEvery = DockerHeartbeatIntervalBounds{}.timerInterval(status.intervalSeconds).count();
  std::string lines = "Docker heartbeat is configured.\n";
  lines += "Endpoint: " + printable(status.endpointURL) + "\n";
  lines += "Profile: " + printable(status.profileID) + "\n";
  lines += "Interval: " + secondsText(status.intervalSeconds) + " s (a beat every " +
           std::to_string(beatEvery) + " s)\n";
  return {std::move(lines), {}, ExitStatus::success};
}

void registerMaintenanceCommands(CLI::App& app, CliContext& context) {
  registerHeartbeatCommands(app, context);

  CLI::App* power =
      app.add_subcommand("power-recovery", "Start the machine again by itself after a power failure");
  power->require_subcommand(1);
  CLI::App* enable = power->add_subcommand(
      "enable",
      "Turn on automatic restart after a power loss, so an armed restart can take effect unattended");
  context.onRun(*enable,
                [&context] { return context.printOutcome(context.helper().enableAutomaticPowerRecovery()); });

  CLI::App* uninstall = app.add_subcommand("prepare-uninstall",
                                           "Remove everything the helper stored (heartbeat, sealed "
                                           "credential, protection record) before uninstalling "
                                           "it; a state directory holding anything else is left in place");
  context.onRun(*uninstall,
                [&context] { return context.printOutcome(context.helper().prepareForUninstall()); });
}

}  // namespace harborkeeper::cli
