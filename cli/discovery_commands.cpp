#include "cli/discovery_commands.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include "cli/recovery_commands.h"
#include "cli/recovery_output.h"
#include "core/foundation/json.h"
#include "core/foundation/text.h"
#include "core/platform/unique_fd.h"
#include "core/protection/helper_constants.h"
#include "core/recovery/dns_service_discovery.h"

namespace harborkeeper::cli {

namespace {

using Clock = std::chrono::steady_clock;
using json::Json;

constexpr std::string_view kAppName = "Harborkeeper";
constexpr std::string_view kFlagged = "[flagged: its record mentions a credential]";

std::chrono::milliseconds fromSeconds(double seconds) {
  return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

std::string candidateLine(const RecoveryDiscoveryCandidate& candidate) {
  std::string addresses;
  for (const std::string& address : candidate.lastKnownLocalIPs) {
    addresses += (addresses.empty() ? "" : ", ") + address;
  }
  // The service name is what `profile add --from-discovery` takes.
  std::string name = printable(candidate.displayName());
  if (candidate.displayName() != text::trimmed(candidate.serviceName)) {
    name += " (advertised as \"" + printable(candidate.serviceName) + "\")";
  }
  std::string line = name + "\t" + printable(hostAndPort(candidate.normalizedHostname(), candidate.port)) +
                     "\t" + (addresses.empty() ? "no address" : addresses);
  if (HarborkeeperDiscovery::containsCredentialDisclosure(candidate)) {
    return line + "\t" + std::string(kFlagged) + "\n";
  }
  if (candidate.isPairingWindowOpen()) {
    line += "\tpairing session " + printable(*candidate.pairingSessionIdentifier());
  }
  return line + "\n";
}

Json candidateJson(const RecoveryDiscoveryCandidate& candidate) {
  const bool flagged = HarborkeeperDiscovery::containsCredentialDisclosure(candidate);
  Json object = {{"id", candidate.id},
                 {"serviceName", candidate.serviceName},
                 {"displayName", candidate.displayName()},
                 {"hostname", candidate.hostname},
                 {"normalizedHostname", candidate.normalizedHostname()},
                 {"port", candidate.port},
                 {"lastKnownLocalIPs", candidate.lastKnownLocalIPs},
                 {"flagged", flagged}};
  if (flagged) return object;
  object["txtRecord"] = candidate.txtRecord;
  object["isPairingWindowOpen"] = candidate.isPairingWindowOpen();
  if (const auto session = candidate.pairingSessionIdentifier()) {
    object["pairingSessionIdentifier"] = *session;
  }
  return object;
}

std::vector<RecoveryDiscoveryCandidate> displayableCandidates(std::chrono::milliseconds timeout) {
  std::vector<RecoveryDiscoveryCandidate> candidates = DNSServiceDiscovery().browse(timeout);
  const std::string local = HarborkeeperDiscovery::localBonjourHostname();
  std::erase_if(candidates, [&](const RecoveryDiscoveryCandidate& candidate) {
    return !HarborkeeperDiscovery::shouldDisplayCandidate(candidate, local);
  });
  return candidates;
}

ExitStatus discover(CliContext& context, double timeoutSeconds, bool json) {
  return context.print(discoveryReport(displayableCandidates(fromSeconds(timeoutSeconds)), json));
}

// SIGINT and SIGTERM as a readable descriptor instead of the end of the
// process, so the advertisement is withdrawn. Blocked before the DNS-SD
// library starts its threads, which inherit the mask and so never take them.
class TerminationSignals final {
 public:
  TerminationSignals() {
    sigemptyset(&set_);
    sigaddset(&set_, SIGINT);
    sigaddset(&set_, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &set_, &previous_);
    fd_.reset(::signalfd(-1, &set_, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!fd_) throw std::system_error(errno, std::generic_category(), "signalfd");
  }
  TerminationSignals(const TerminationSignals&) = delete;
  TerminationSignals& operator=(const TerminationSignals&) = delete;
  ~TerminationSignals() { ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
  [[nodiscard]] int fd() const { return fd_.get(); }
  // Takes the signal that arrived, so restoring the mask does not deliver it.
  void consume() const {
    signalfd_siginfo info{};
    while (::read(fd_.get(), &info, sizeof info) == sizeof info) {
    }
  }

 private:
  sigset_t set_{};
  sigset_t previous_{};
  UniqueFd fd_;
};

struct AdvertiseOptions {
  std::string pairingSession;
  std::int64_t port = HarborkeeperDiscovery::defaultSSHPort;
  double forSeconds = 0;  // 0: until a signal
};

// -1 (no limit) without a deadline.
int millisecondsLeft(std::optional<Clock::time_point> deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, 60'000));
}

// Until a signal or the deadline; handles the service's news meanwhile.
void serve(CliContext& context, ServiceRegistration& registration, const TerminationSignals& signals,
           std::optional<Clock::time_point> deadline) {
  for (;;) {
    pollfd fds[] = {{signals.fd(), POLLIN, 0}, {registration.eventDescriptor(), POLLIN, 0}};
    const int ready = ::poll(fds, 2, millisecondsLeft(deadline));
    if ((fds[0].revents & POLLIN) != 0) return signals.consume();
    if (deadline && Clock::now() >= *deadline) return;
    if (ready <= 0) continue;  // EINTR, or a wait capped short of the deadline
    const std::string before = registration.name();
    registration.processEvents();
    if (registration.name() != before) {
      context.out() << "Now advertised as \"" << registration.name() << "\"." << std::endl;
    }
  }
}

ExitStatus advertise(CliContext& context, const AdvertiseOptions& options) {
  const TerminationSignals signals;
  const std::string hostname = HarborkeeperDiscovery::localBonjourHostname();
  std::optional<std::string> session;
  if (!options.pairingSession.empty()) session = options.pairingSession;
  const TXTRecord txt = HarborkeeperDiscovery::advertisedTXTRecord(
      kAppName, HelperConstants::appBundleIdentifier, hostname, session);
  RecoveryDiscoveryCandidate self;
  self.serviceName = HarborkeeperDiscovery::advertisedServiceName;
  self.hostname = hostname;
  self.txtRecord = txt;
  if (HarborkeeperDiscovery::containsCredentialDisclosure(self)) {
    context.err()
        << "Warning: other machines will flag this advertisement: its record mentions a credential.\n";
  }
  DNSServiceDiscovery discovery;
  auto registration = discovery.advertise(HarborkeeperDiscovery::advertisedServiceName,
                                          static_cast<std::uint16_t>(options.port), txt);
  context.out() << "Advertising \"" << registration->name() << "\" (" << HarborkeeperDiscovery::serviceType
                << ") for " << hostname << " port " << options.port << ". Stop with Ctrl-C." << std::endl;
  std::optional<Clock::time_point> deadline;
  if (options.forSeconds > 0) deadline = Clock::now() + fromSeconds(options.forSeconds);
  serve(context, *registration, signals, deadline);
  registration.reset();
  context.out() << "Stopped advertising.\n";
  return ExitStatus::success;
}

}  // namespace

Report discoveryReport(const std::vector<RecoveryDiscoveryCandidate>& candidates, bool json) {
  if (json) {
    Json list = Json::array();
    for (const auto& candidate : candidates) list.push_back(candidateJson(candidate));
    return {json::serializePretty(list) + "\n", {}, ExitStatus::success};
  }
  if (candidates.empty()) return {{}, "No Harborkeeper machines found.", ExitStatus::success};
  std::string output;
  for (const auto& candidate : candidates) output += candidateLine(candidate);
  return {output, {}, ExitStatus::success};
}

RecoveryDiscoveryCandidate requireDiscoveredCandidate(std::string_view serviceName,
                                                      std::chrono::milliseconds timeout) {
  const std::string wanted = text::lowercased(text::trimmed(serviceName));
  for (const auto& candidate : displayableCandidates(timeout)) {
    if (text::lowercased(candidate.serviceName) != wanted) continue;
    if (HarborkeeperDiscovery::containsCredentialDisclosure(candidate)) {
      throw CommandError("The machine advertised as " + printable(candidate.serviceName) +
                         " is flagged: its record mentions a credential. No profile is made from it.");
    }
    return candidate;
  }
  throw CommandError("No Harborkeeper machine advertised as " + printable(serviceName) + " answered within " +
                     std::to_string(std::chrono::duration_cast<std::chrono::seconds>(timeout).count()) +
                     " seconds.");
}

void registerDiscoveryCommands(CLI::App& app, CliContext& context) {
  auto timeout = std::make_shared<double>(static_cast<double>(defaultDiscoveryTimeout.count()));
  auto json = std::make_shared<bool>(false);
  CLI::App* discoverCommand = app.add_subcommand(
      "discover", "List the Harborkeeper machines that announce themselves on the local network");
  discoverCommand->add_option("--timeout", *timeout, "How long to listen")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.1, 600.0))
      ->capture_default_str();
  CliContext::addJsonFlag(*discoverCommand, *json);
  context.onRun(*discoverCommand, [&context, timeout, json] { return discover(context, *timeout, *json); });

  auto options = std::make_shared<AdvertiseOptions>();
  CLI::App* advertiseCommand = app.add_subcommand(
      "advertise", "Announce this machine on the local network until interrupted, so others can find it");
  advertiseCommand
      ->add_option("--pairing-session", options->pairingSession, "Identifier of a pairing session to offer")
      ->type_name("ID");
  addPortOption(*advertiseCommand, options->port, "SSH port to announce");
  advertiseCommand->add_option("--for", options->forSeconds, "Stop by itself after this long")
      ->type_name("SECONDS")
      ->check(CLI::PositiveNumber);
  context.onRun(*advertiseCommand, [&context, options] { return advertise(context, *options); });
}

}  // namespace harborkeeper::cli
