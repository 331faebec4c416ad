#pragma once

#include <CLI/CLI.hpp>

#include "cli/cli_context.h"
#include "cli/cli_output.h"
#include "core/heartbeat/docker_heartbeat_configuration.h"

// The helper's maintenance requests: the signed heartbeat to a local unlocker,
// power-loss recovery and the clean-up before uninstall.
namespace harborkeeper::cli {

// heartbeat configure|disable|status, power-recovery enable, prepare-uninstall
void registerMaintenanceCommands(CLI::App& app, CliContext& context);

// `heartbeat status`: "Docker heartbeat is not configured." or the endpoint,
// profile and interval (the one asked for and the one beats keep). With
// `json`, the record with its coding keys. Never the secret: it is not in it.
Report heartbeatStatusReport(const DockerHeartbeatStatus& status, bool json);

}  // namespace harborkeeper::cli
