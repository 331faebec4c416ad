#pragma once

#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "core/protection/helper_constants.h"
#include "helper/logger.h"

namespace harborkeeper {

// How this run of the daemon is set up. The defaults are the installed ones.
struct HelperOptions {
  std::string socketPath = "/run/com.lumaq.Harborkeeper.Helper";
  std::string stateDirectory = std::string(HelperConstants::linuxStateDirectoryPath);
  std::string trustedClientsPath = "/etc/harborkeeper/trusted-clients.plist";
  std::string fdesetupPath = "/usr/bin/fdesetup";
  std::string pmsetPath = "/usr/bin/pmset";
  std::string systemdCredsPath = "/usr/bin/systemd-creds";
  std::string pamServiceDirectory = "/etc/pam.d";
  std::vector<std::string> trustedExecutables;  // canonical (realpath) paths
  LogDestination logDestination = LogDestination::automatic;

  bool operator==(const HelperOptions&) const = default;
};

// Either options to run with, or the code to exit with at once (0 after
// --help or --version, 2 after a usage error, whose message is already
// written to `error`).
struct HelperOptionsOutcome {
  std::optional<HelperOptions> options;
  int exitCode = 0;
};

// Reads the command line. Every path must be absolute except those of
// --trust-client, which are resolved here (a missing file is a usage error).
// Never exits the process and never throws.
HelperOptionsOutcome parseHelperOptions(int argc, const char* const* argv, std::ostream& output = std::cout,
                                        std::ostream& error = std::cerr);

}  // namespace harborkeeper
