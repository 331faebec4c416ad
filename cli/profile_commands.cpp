#include "cli/profile_commands.h"

#include <unistd.h>

#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cli/discovery_commands.h"
#include "cli/recovery_commands.h"
#include "cli/recovery_output.h"
#include "core/foundation/text.h"
#include "core/foundation/uuid.h"

namespace harborkeeper::cli {

namespace {

// `profile add`'s options; the choices are the words the command line takes.
struct NewProfile {
  std::string name;
  std::string host;
  std::string user;
  std::int64_t port = 22;
  std::string normalUser;
  std::string vpnHost;
  std::vector<std::string> ips;
  std::string trust = "verified";
  std::string approval = "automatic";
  std::string credential = "ask";
  std::string wolMac;
  std::string wolBroadcast;
  std::int64_t wolPort = 9;
  std::string notes;
  std::string fromDiscovery;  // a service name
  const CLI::Option* portOption = nullptr;
};

const std::map<std::string, RecoveryHostKeyTrustPolicy> kTrustChoices = {
    {"verified", RecoveryHostKeyTrustPolicy::requireVerifiedHostKey},
    {"best-effort", RecoveryHostKeyTrustPolicy::allowUnverifiedLocalNetwork}};
const std::map<std::string, ListenerApprovalPolicy> kApprovalChoices = {
    {"phone", ListenerApprovalPolicy::requirePhoneApproval},
    {"automatic", ListenerApprovalPolicy::allowTrustedListener}};
const std::map<std::string, RecoveryCredentialPolicy> kCredentialChoices = {
    {"ask", RecoveryCredentialPolicy::askEveryTime},
    {"device", RecoveryCredentialPolicy::requireDeviceAuthentication},
    {"one-click", RecoveryCredentialPolicy::oneClick}};

template <typename Value>
std::vector<std::string> choices(const std::map<std::string, Value>& map) {
  std::vector<std::string> words;
  words.reserve(map.size());
  for (const auto& entry : map) words.push_back(entry.first);
  return words;
}

RecoveryProfile makeProfile(const NewProfile& options) {
  RecoveryProfile profile;
  profile.id = uuid::makeV4();
  profile.macName = text::trimmed(options.name);
  profile.localHostname = text::trimmed(options.host);
  profile.sshPort = options.port;
  profile.hostKeyTrustPolicy = kTrustChoices.at(options.trust);
  for (const std::string& ip : options.ips) profile.lastKnownLocalIPs.push_back(text::trimmed(ip));
  profile.fileVaultUsername = text::trimmed(options.user);
  profile.credentialPolicy = kCredentialChoices.at(options.credential);
  profile.listenerApprovalPolicy = kApprovalChoices.at(options.approval);
  profile.notes = options.notes;
  profile.vpnHostname = text::trimmed(options.vpnHost);
  profile.normalSSHUsername = text::trimmed(options.normalUser);
  profile.wakeOnLANMACAddress = text::trimmed(options.wolMac);
  profile.wakeOnLANBroadcastAddress = text::trimmed(options.wolBroadcast);
  profile.wakeOnLANPort = options.wolPort;
  return profile;
}

// What the announcement says, where the command line said nothing.
void fillFromDiscovery(RecoveryProfile& profile, const NewProfile& options) {
  const RecoveryDiscoveryCandidate candidate =
      requireDiscoveredCandidate(options.fromDiscovery, defaultDiscoveryTimeout);
  if (options.host.empty()) {
    profile.localHostname = text::trimmed(candidate.normalizedHostname());
    if (!sshArgumentValidator()(profile.localHostname).empty()) {
      throw CommandError("The discovered host name cannot be used; give one with --host.");
    }
  }
  if (options.portOption->count() == 0) profile.sshPort = candidate.port;
  if (options.ips.empty()) profile.lastKnownLocalIPs = candidate.lastKnownLocalIPs;
  profile.lastPairingSessionIdentifier = candidate.pairingSessionIdentifier();
}

ExitStatus add(CliContext& context, const NewProfile& options) {
  const RecoveryProfileStore store = context.profileStore();
  std::vector<RecoveryProfile> profiles = store.load();
  RecoveryProfile profile = makeProfile(options);
  if (RecoveryProfileStore::find(profiles, profile.macName) != nullptr) {
    throw CommandError("A profile named " + profile.macName + " already exists.");
  }
  if (!options.fromDiscovery.empty()) fillFromDiscovery(profile, options);
  profiles.push_back(profile);
  store.save(profiles);
  context.out() << "Added profile " << profile.macName << " (" << profile.id << ").\n";
  return ExitStatus::success;
}

ExitStatus list(CliContext& context, bool json) {
  return context.print(profileListReport(context.profileStore().load(), json));
}

ExitStatus show(CliContext& context, const std::string& name, bool json) {
  return context.print(profileShowReport(requireProfile(context.profileStore().load(), name), json));
}

ExitStatus remove(CliContext& context, const std::string& name) {
  const RecoveryProfileStore store = context.profileStore();
  std::vector<RecoveryProfile> profiles = store.load();
  const RecoveryProfile& profile = requireProfile(profiles, name);
  const std::string removed = profile.macName;
  std::erase_if(profiles, [&](const RecoveryProfile& p) { return p.id == profile.id; });
  store.save(profiles);
  context.out() << "Removed profile " << removed << ".\n";
  return ExitStatus::success;
}

// Only a person at a terminal, or --yes, may vouch for a key.
void confirmTrust(CliContext& context) {
  if (::isatty(STDIN_FILENO) != 1) {
    throw CommandError(
        "The host key was not trusted: there is no terminal to confirm it on. Compare the "
        "fingerprint with the machine's own, then run again with --yes.");
  }
  context.err() << "Trust this key? [y/N] " << std::flush;
  std::string answer;
  std::getline(std::cin, answer);
  answer = text::lowercased(text::trimmed(answer));
  if (answer != "y" && answer != "yes") throw CommandError("The host key was not trusted.");
}

ExitStatus trust(CliContext& context, const std::string& name, bool yes) {
  const RecoveryProfileStore store = context.profileStore();
  const RecoveryProfile profile = requireProfile(store.load(), name);
  const std::string host = profile.connectionHost();
  const auto capture = RecoveryTools().recovery.captureHostKeyFingerprint(host, profile.sshPort);
  if (!capture.fingerprint) throw CommandError(capture.message);
  const std::string& fingerprint = *capture.fingerprint;
  context.out() << hostKeyOffer(host, profile.sshPort, fingerprint, profile.hostKeyFingerprint) << std::flush;
  if (fingerprint == profile.hostKeyFingerprint) {
    context.out() << "This key is already trusted.\n";
    return ExitStatus::success;
  }
  if (!yes) confirmTrust(context);
  // The list as it is now: the capture took a while and the file may have changed.
  std::vector<RecoveryProfile> profiles = store.load();
  RecoveryProfile* current = RecoveryProfileStore::find(profiles, profile.id);
  if (current == nullptr) throw CommandError("No profile named " + name + ".");
  current->hostKeyFingerprint = fingerprint;
  store.save(profiles);
  context.out() << "Trusted the host key of " << profile.macName << ".\n";
  return ExitStatus::success;
}

void addNewProfileOptions(CLI::App& command, NewProfile& o) {
  const CLI::Validator& ssh = sshArgumentValidator();
  command.add_option("--name", o.name, "Name of the machine")
      ->required()
      ->check(CLI::Validator(
          [](const std::string& value) { return text::trimmed(value).empty() ? "must not be empty" : ""; },
          ""));
  CLI::Option_group* source = command.add_option_group(
      "host", "Where the machine is: given, announced on the network, or both (what is given wins)");
  source->add_option("--host", o.host, "Its local host name, e.g. studio.local")->check(ssh);
  source
      ->add_option("--from-discovery", o.fromDiscovery,
                   "Take the host, port and addresses from the machine announced on the local network under "
                   "this name (see discover)")
      ->type_name("SERVICE_NAME");
  source->require_option(1, 2);
  command.add_option("--user", o.user, "The account whose password unlocks FileVault")
      ->required()
      ->check(ssh);
  o.portOption = addPortOption(command, o.port, "SSH port");
  command.add_option("--normal-user", o.normalUser, "Account for ordinary SSH after boot (default: --user)")
      ->check(ssh);
  command.add_option("--vpn-host", o.vpnHost, "Host name on your VPN, tried first")->check(ssh);
  command.add_option("--ip", o.ips, "Local IP address last seen, most useful first (repeatable)")
      ->type_name("ADDR")
      ->check(ssh);
  command
      .add_option("--trust", o.trust,
                  "verified: recover only once its SSH identity is captured and matches; "
                  "best-effort: also when it cannot be verified (trusted networks only)")
      ->check(CLI::IsMember(choices(kTrustChoices)))
      ->capture_default_str();
  command
      .add_option("--approval", o.approval,
                  "phone: a local unlocker must ask a phone first; automatic: it may "
                  "unlock by itself")
      ->check(CLI::IsMember(choices(kApprovalChoices)))
      ->capture_default_str();
  command.add_option("--credential", o.credential, "How the FileVault password is kept")
      ->check(CLI::IsMember(choices(kCredentialChoices)))
      ->capture_default_str();
  command.add_option("--wol-mac", o.wolMac, "Hardware address for Wake-on-LAN");
  command.add_option("--wol-broadcast", o.wolBroadcast, "Broadcast address for Wake-on-LAN");
  command.add_option("--wol-port", o.wolPort, "UDP port for Wake-on-LAN")
      ->type_name("N")
      ->check(CLI::Range(1, 65535))
      ->capture_default_str();
  command.add_option("--notes", o.notes, "Free text");
}

}  // namespace

void registerProfileCommands(CLI::App& app, CliContext& context) {
  CLI::App* group = app.add_subcommand("profile", "Manage the recovery profiles of companion machines");
  group->require_subcommand(1);
  auto options = std::make_shared<NewProfile>();
  auto name = std::make_shared<std::string>();
  auto json = std::make_shared<bool>(false);
  auto yes = std::make_shared<bool>(false);

  CLI::App* addCommand = group->add_subcommand("add", "Add a machine that can be recovered over SSH");
  addNewProfileOptions(*addCommand, *options);
  context.onRun(*addCommand, [&context, options] { return add(context, *options); });

  CLI::App* listCommand = group->add_subcommand("list", "List the profiles, one per line");
  CliContext::addJsonFlag(*listCommand, *json);
  context.onRun(*listCommand, [&context, json] { return list(context, *json); });

  CLI::App* showCommand = addProfileNameCommand(*group, "show", "Show every field of a profile", *name);
  CliContext::addJsonFlag(*showCommand, *json);
  context.onRun(*showCommand, [&context, name, json] { return show(context, *name, *json); });

  CLI::App* removeCommand = addProfileNameCommand(*group, "remove", "Remove a profile", *name);
  context.onRun(*removeCommand, [&context, name] { return remove(context, *name); });

  CLI::App* trustCommand = addProfileNameCommand(
      *group, "trust", "Capture the machine's SSH host key and, once confirmed, save it as the trusted one",
      *name);
  trustCommand->add_flag("--yes", *yes,
                         "Trust the captured key without asking (after checking it elsewhere)");
  context.onRun(*trustCommand, [&context, name, yes] { return trust(context, *name, *yes); });
}

}  // namespace harborkeeper::cli
