// harborkeeper-helper: the root daemon's entry point. Each step of start-up
// and shut-down is one function, in the order they run.

#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/platform/command_runner.h"
#include "core/protection/helper_constants.h"
#include "helper/helper_listener.h"
#include "helper/helper_options.h"
#include "helper/helper_service.h"
#include "helper/logger.h"
#include "helper/peer_check.h"
#include "helper/socket_endpoint.h"

namespace harborkeeper {
namespace {

// Before anything else: a core dump of this process could hold a password.
void disableCoreDumps() {
  (void)::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
  const rlimit none{0, 0};
  (void)::setrlimit(RLIMIT_CORE, &none);
}

// Blocked before any thread starts, so every thread inherits the mask and the
// signals reach only the main thread's sigwait(). SIGHUP is ignored: there is
// nothing to reload, the registry is read on every check. Tools get default
// dispositions and an empty mask from the command runner.
sigset_t blockTerminationSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  (void)::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  (void)::signal(SIGHUP, SIG_IGN);
  (void)::signal(SIGPIPE, SIG_IGN);
  return signals;
}

// Files and executables must belong to the account the daemon runs as: root
// when installed, the tester's own account in an unprivileged test run.
HelperServiceConfiguration serviceConfiguration(const HelperOptions& options) {
  HelperServiceConfiguration configuration;
  configuration.stateDirectory = options.stateDirectory;
  configuration.fdesetupPath = options.fdesetupPath;
  configuration.pmsetPath = options.pmsetPath;
  configuration.systemdCredsPath = options.systemdCredsPath;
  configuration.pamServiceDirectory = options.pamServiceDirectory;
  configuration.stateOwner = ::geteuid();
  return configuration;
}

PeerVerifier makeVerifier(const HelperOptions& options) {
  std::vector<TrustedClient> runTrusted;
  for (const std::string& path : options.trustedExecutables) {
    runTrusted.push_back(PeerVerifier::trustedAsApp(path));
  }
  return {options.trustedClientsPath, std::move(runTrusted), makeProcPeerInspector(::geteuid()), ::geteuid()};
}

// Also runs when start-up fails after the socket was bound.
class SocketFileRemoval final {
 public:
  explicit SocketFileRemoval(const ListeningEndpoint& endpoint) : endpoint_(endpoint) {}
  ~SocketFileRemoval() { removeBoundSocketFile(endpoint_); }
  SocketFileRemoval(const SocketFileRemoval&) = delete;
  SocketFileRemoval& operator=(const SocketFileRemoval&) = delete;

 private:
  const ListeningEndpoint& endpoint_;
};

void logStarted(Logger& logger, const HelperOptions& options, const ListeningEndpoint& endpoint) {
  const std::string socket = endpoint.boundPath.empty() ? "the socket passed by systemd" : endpoint.boundPath;
  logger.info("Harborkeeper helper " + HelperConstants::helperVersion() + " started on " + socket +
              "; state directory " + options.stateDirectory + ".");
}

// After every boot the stored credential arms the following restart again.
// Clients may already be connected; the operation queue orders their requests
// after this one.
void queueLaunchRearm(HelperService& service, Logger& logger) {
  service.enqueue([&service, &logger] {
    const ipc::HelperCommandResult result = service.armPersistentProtection();
    if (result.success) {
      logger.info("Startup persistent authenticated restart rearm succeeded.");
    } else {
      logger.error("Startup persistent authenticated restart rearm failed: " + result.message);
    }
  });
}

int waitForTermination(const sigset_t& signals) {
  for (;;) {
    int signal = 0;
    if (::sigwait(&signals, &signal) == 0) return signal;
  }
}

// New connections and requests stop first, then the running operation ends.
void stopServing(Logger& logger, int signal, HelperListener& listener, HelperService& service,
                 const ListeningEndpoint& endpoint) {
  logger.info(std::string("Harborkeeper helper stopping on ") + (signal == SIGINT ? "SIGINT" : "SIGTERM") +
              ".");
  (void)sd_notify(0, "STOPPING=1");
  listener.stop();
  service.shutdown();
  removeBoundSocketFile(endpoint);
}

int run(const HelperOptions& options, Logger& logger, const sigset_t& signals) {
  const HelperServiceConfiguration configuration = serviceConfiguration(options);
  HelperService service(configuration, HelperServiceDependencies::system(configuration, logger), logger);
  const PeerVerifier verifier = makeVerifier(options);
  ListeningEndpoint endpoint = openListeningEndpoint(options.socketPath);
  const SocketFileRemoval removal(endpoint);
  HelperListener listener(std::move(endpoint.socket), service, verifier, logger);
  listener.resume();
  logStarted(logger, options, endpoint);
  service.heartbeatManager().start();
  queueLaunchRearm(service, logger);
  (void)sd_notify(0, "READY=1");
  stopServing(logger, waitForTermination(signals), listener, service, endpoint);
  return 0;
}

}  // namespace
}  // namespace harborkeeper

int main(int argc, char** argv) {
  using namespace harborkeeper;
  disableCoreDumps();
  const HelperOptionsOutcome parsed = parseHelperOptions(argc, argv);
  if (!parsed.options) return parsed.exitCode;
  const sigset_t signals = blockTerminationSignals();
  const std::unique_ptr<Logger> logger = makeProcessLogger(parsed.options->logDestination);
  try {
    return run(*parsed.options, *logger, signals);
  } catch (const std::exception& error) {
    logger->error(std::string("Harborkeeper helper could not start: ") + error.what());
    return 1;
  }
}
