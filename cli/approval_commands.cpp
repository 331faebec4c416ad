#include "cli/approval_commands.h"

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>

#include "cli/approval_configuration.h"
#include "cli/approval_device_commands.h"
#include "cli/approval_output.h"
#include "cli/recovery_commands.h"
#include "core/foundation/bytes.h"
#include "core/foundation/json.h"
#include "core/foundation/text.h"

namespace harborkeeper::cli {

namespace {

using namespace std::chrono_literals;

constexpr std::int64_t kDefaultPairingSeconds = 600;
constexpr std::int64_t kDefaultWaitSeconds = 600;
constexpr std::int64_t kLongestLifetime = std::int64_t{7} * 24 * 3600;

// One command runs per invocation, so its options can share one record.
struct ListenerOptions {
  std::shared_ptr<std::string> configFile;
  std::string endpoint;
  std::string name;
  std::string caFile;
  std::string target;  // a profile, request or device, as the command takes
  std::int64_t defaultTTL = kDefaultApprovalTTLSeconds;
  std::int64_t expiresIn = kDefaultPairingSeconds;
  std::int64_t ttl = 0;
  const CLI::Option* ttlOption = nullptr;
  std::int64_t timeout = kDefaultWaitSeconds;
  bool json = false;
  bool replace = false;
};

ApprovalConfigurationStore store(const ListenerOptions& o) {
  return ApprovalConfigurationStore::chosen(*o.configFile);
}

PhoneApprovalMiddlewareClient client(const ListenerOptions& o) {
  ApprovalConfiguration configuration = store(o).require();
  const WipeOnExit wipe(configuration.listenerSecret);
  return makeApprovalClient(configuration);
}

ExitStatus printed(CliContext& context, const std::string& line, bool json, const json::Json& record) {
  context.out() << (json ? json::serializePretty(record) : line) << '\n';
  return ExitStatus::success;
}

void refuseToReplace(const ApprovalConfigurationStore& store) {
  if (const auto existing = store.load()) {
    throw CommandError("Listener " + printable(existing->listenerID) + " is already registered in " +
                       store.file().string() + "; give --replace to register a new one instead.");
  }
}

ExitStatus registerListener(CliContext& context, const ListenerOptions& o) {
  const ApprovalConfigurationStore settings = store(o);
  if (!o.replace) refuseToReplace(settings);
  ApprovalConfiguration configuration{text::trimmed(o.endpoint), "", "", o.defaultTTL, ""};
  if (!o.caFile.empty()) configuration.caFile = std::filesystem::absolute(o.caFile).string();
  PhoneApprovalListenerRegistrationRecord record = callMiddleware(
      [&] { return makeApprovalClient(configuration).registerListener(text::trimmed(o.name)); });
  const WipeOnExit wipeRecord(record.listenerSecret);
  if (text::trimmed(record.listenerId).empty() || text::trimmed(record.listenerSecret).empty()) {
    throw CommandError("Phone approval middleware returned no listener identifier or secret.");
  }
  configuration.listenerID = record.listenerId;
  configuration.listenerSecret = record.listenerSecret;
  const WipeOnExit wipeConfiguration(configuration.listenerSecret);
  const std::string listener = printable(record.listenerId);
  try {
    settings.save(configuration);
  } catch (const CommandError& error) {
    throw CommandError(std::string(error.what()) + " Listener " + listener +
                       " was registered but its secret is lost; register again.");
  }
  context.out() << "Registered listener " << listener << ".\nIts secret is kept in "
                << settings.file().string()
                << (record.secretShownOnce ? "; the middleware will not show it again.\n" : ".\n");
  return ExitStatus::success;
}

ExitStatus pairingToken(CliContext& context, const ListenerOptions& o) {
  const PhoneApprovalPairingTokenRecord record =
      callMiddleware([&] { return client(o).createPhonePairingToken(text::trimmed(o.name), o.expiresIn); });
  context.out() << printable(record.pairingToken) << '\n';
  if (::isatty(STDOUT_FILENO) == 1) {
    context.out() << qrCodeText(record.pairingToken) << "Pair the phone with it before "
                  << printable(record.expiresAt) << ".\n";
  }
  return ExitStatus::success;
}

ExitStatus devices(CliContext& context, const ListenerOptions& o) {
  return context.print(
      pairedDevicesReport(callMiddleware([&] { return client(o).listPairedDevices(); }), o.json));
}

ExitStatus rename(CliContext& context, const ListenerOptions& o) {
  const PhoneApprovalPairedDeviceRecord record =
      callMiddleware([&] { return client(o).renamePairedDevice(o.target, text::trimmed(o.name)); });
  return printed(
      context, "Renamed device " + printable(record.deviceId) + " to " + printable(record.displayName) + ".",
      o.json, encodePhoneApproval(record));
}

ExitStatus revoke(CliContext& context, const ListenerOptions& o) {
  const PhoneApprovalPairedDeviceRevocationRecord record =
      callMiddleware([&] { return client(o).revokePairedDevice(o.target); });
  if (!record.revoked) {
    throw CommandError("Phone approval middleware did not revoke device " + printable(record.deviceId) + ".");
  }
  return printed(context, "Revoked device " + printable(record.deviceId) + ".", o.json,
                 encodePhoneApproval(record));
}

ExitStatus testNotification(CliContext& context, const ListenerOptions& o) {
  const PhoneApprovalTestNotificationRecord record =
      callMiddleware([&] { return client(o).sendPairedDeviceTestNotification(); });
  if (!record.queued) {
    throw CommandError("Phone approval middleware did not queue the test notification; is a device paired?");
  }
  return printed(context, "Test notification " + printable(record.testId) + " queued.", o.json,
                 encodePhoneApproval(record));
}

ExitStatus request(CliContext& context, const ListenerOptions& o) {
  const RecoveryProfile profile = requireProfile(context.profileStore().load(), o.target);
  ApprovalConfiguration configuration = store(o).require();
  const WipeOnExit wipe(configuration.listenerSecret);
  const std::int64_t ttl = o.ttlOption->count() > 0 ? o.ttl : configuration.defaultTTLSeconds;
  const PhoneApprovalRequest asked =
      PhoneApprovalRequest::make(profile, std::chrono::system_clock::now(), std::chrono::seconds(ttl));
  return context.print(approvalRecordReport(
      callMiddleware([&] { return makeApprovalClient(configuration).createApprovalRequest(asked, ttl); }),
      o.json));
}

ExitStatus read(CliContext& context, const ListenerOptions& o) {
  return context.print(
      approvalRecordReport(callMiddleware([&] { return client(o).readApprovalRequest(o.target); }), o.json));
}

ExitStatus consume(CliContext& context, const ListenerOptions& o) {
  return context.print(approvalRecordReport(
      callMiddleware([&] { return client(o).consumeApprovalRequest(o.target); }), o.json));
}

ExitStatus wait(CliContext& context, const ListenerOptions& o) {
  const PhoneApprovalMiddlewareClient middleware = client(o);
  // Progress is for a person watching; a script gets only the outcome.
  const bool terminal = ::isatty(STDERR_FILENO) == 1;
  ApprovalWait wait{
      .read = [&] { return callMiddleware([&] { return middleware.readApprovalRequest(o.target); }); },
      .now = [] { return std::chrono::steady_clock::now(); },
      .sleep = [](std::chrono::steady_clock::duration pause) { std::this_thread::sleep_for(pause); },
      .progress = {},
      .timeout = std::chrono::seconds(o.timeout)};
  if (terminal) {
    wait.progress = [&](std::chrono::seconds waited) {
      context.err() << "\rWaiting for a decision on request " << printable(o.target) << "... "
                    << waited.count() << " s" << std::flush;
    };
  }
  const ApprovalWaitResult result = waitForDecision(wait);
  if (terminal) context.err() << "\r\x1B[K" << std::flush;
  return context.print(approvalWaitReport(result, wait.timeout));
}

const CLI::Validator& nonEmpty() {
  static const CLI::Validator validator(
      [](const std::string& value) { return text::trimmed(value).empty() ? "must not be empty" : ""; }, "");
  return validator;
}

CLI::Option* addSeconds(CLI::App& command, const std::string& flag, std::int64_t& value,
                        const std::string& description) {
  return command.add_option(flag, value, description)
      ->type_name("SECONDS")
      ->check(CLI::Range(std::int64_t{1}, kLongestLifetime));
}

using Command = ExitStatus (*)(CliContext&, const ListenerOptions&);

CLI::App* addCommand(CLI::App& group, CliContext& context, const std::shared_ptr<ListenerOptions>& o,
                     const std::string& name, const std::string& description, Command command) {
  CLI::App* added = group.add_subcommand(name, description);
  context.onRun(*added, [&context, o, command] { return command(context, *o); });
  return added;
}

void addListenerCommands(CLI::App& group, CliContext& context, const std::shared_ptr<ListenerOptions>& o) {
  CLI::App* registerCommand = addCommand(
      group, context, o, "register",
      "Register this machine as a listener with the phone approval middleware and keep the secret it returns "
      "in the settings file (mode 0600). Prints the listener id, never the secret",
      registerListener);
  registerCommand->add_option("--endpoint", o->endpoint, "The middleware's HTTPS base URL")
      ->required()
      ->check(nonEmpty());
  registerCommand->add_option("--name", o->name, "Name the phones show for this listener")
      ->required()
      ->check(nonEmpty());
  registerCommand
      ->add_option("--ca-file", o->caFile,
                   "PEM file of a CA trusted besides the system's, for a private middleware")
      ->check(CLI::ExistingFile);
  addSeconds(*registerCommand, "--default-ttl", o->defaultTTL, "Life of an approval request")
      ->capture_default_str();
  registerCommand->add_flag("--replace", o->replace,
                            "Replace a listener already registered (its secret is lost)");

  CLI::App* pairing =
      addCommand(group, context, o, "pairing-token",
                 "Ask for a one-time token a phone pairs with; on a terminal it is also drawn as a QR code",
                 pairingToken);
  pairing->add_option("--name", o->name, "Name of the phone to pair")->required()->check(nonEmpty());
  addSeconds(*pairing, "--expires-in", o->expiresIn, "How long the token stays valid")->capture_default_str();

  CLI::App* list =
      addCommand(group, context, o, "devices", "List the phones paired with this listener", devices);
  CliContext::addJsonFlag(*list, o->json);

  CLI::App* renameCommand = addCommand(group, context, o, "rename", "Give a paired phone a new name", rename);
  renameCommand->add_option("DEVICE", o->target, "The device's id")->required();
  renameCommand->add_option("NAME", o->name, "Its new name")->required()->check(nonEmpty());
  CliContext::addJsonFlag(*renameCommand, o->json);

  CLI::App* revokeCommand = addCommand(group, context, o, "revoke",
                                       "Unpair a phone: its decisions are refused from now on", revoke);
  revokeCommand->add_option("DEVICE", o->target, "The device's id")->required();
  CliContext::addJsonFlag(*revokeCommand, o->json);

  CLI::App* test =
      addCommand(group, context, o, "test-notification",
                 "Have the middleware send a test notification to the paired phones", testNotification);
  CliContext::addJsonFlag(*test, o->json);
}

void addRequestCommands(CLI::App& group, CliContext& context, const std::shared_ptr<ListenerOptions>& o) {
  CLI::App* requestCommand = addProfileNameCommand(
      group, "request", "Ask the paired phones to approve unlocking a profile's machine; prints the request",
      o->target);
  context.onRun(*requestCommand, [&context, o] { return request(context, *o); });
  o->ttlOption =
      addSeconds(*requestCommand, "--ttl", o->ttl, "Life of the request (default: the registered default)");
  CliContext::addJsonFlag(*requestCommand, o->json);

  CLI::App* readCommand =
      addCommand(group, context, o, "read", "Show an approval request and its status", read);
  readCommand->add_option("ID", o->target, "The request's id")->required();
  CliContext::addJsonFlag(*readCommand, o->json);

  CLI::App* consumeCommand =
      addCommand(group, context, o, "consume",
                 "Use up an approved request, so it cannot approve a second unlock", consume);
  consumeCommand->add_option("ID", o->target, "The request's id")->required();
  CliContext::addJsonFlag(*consumeCommand, o->json);

  CLI::App* waitCommand = addCommand(
      group, context, o, "wait",
      "Check a request every 2 s until a phone decides. Exit 0 only when approved; 1 when denied, expired, "
      "consumed or still pending at the time-out",
      wait);
  waitCommand->add_option("ID", o->target, "The request's id")->required();
  addSeconds(*waitCommand, "--timeout", o->timeout, "Give up after this long")->capture_default_str();
}

}  // namespace

void registerApprovalCommands(CLI::App& app, CliContext& context) {
  CLI::App* group = app.add_subcommand(
      "approval", "Ask a paired phone to approve an unlock, through the phone approval middleware");
  group->require_subcommand(1);
  auto options = std::make_shared<ListenerOptions>();
  options->configFile = std::make_shared<std::string>();
  group
      ->add_option("--approval-config", *options->configFile,
                   "The listener's settings file (default: approval.json beside the profile list)")
      ->type_name("FILE");
  addListenerCommands(*group, context, options);
  addRequestCommands(*group, context, options);
  registerApprovalDeviceCommands(*group, context, options->configFile);
}

}  // namespace harborkeeper::cli
