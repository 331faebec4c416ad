#include "helper/helper_service.h"

#include <exception>
#include <utility>

#include "core/ipc/frame_codec.h"
#include "core/protection/file_vault_users.h"
#include "core/protection/protection_status_store.h"

namespace harborkeeper {

namespace {

constexpr double defaultToolTimeout = 30.0;
constexpr double fileVaultListTimeout = 30.0;
constexpr double authRestartTimeout = 110.0;

// Request arguments wiped wherever they end: after the work, or dropped with
// the queue at shutdown.
struct WipedArguments {
  plist::Array values;
  explicit WipedArguments(plist::Array arguments) : values(std::move(arguments)) {}
  WipedArguments(const WipedArguments&) = default;
  WipedArguments(WipedArguments&&) noexcept = default;
  WipedArguments& operator=(const WipedArguments&) = delete;
  WipedArguments& operator=(WipedArguments&&) = delete;
  ~WipedArguments() { secureWipe(values); }
};

// Arguments were checked against the interface before dispatch.
std::string_view textArgument(const plist::Array& arguments, std::size_t index) {
  return *arguments.at(index).get<std::string>();
}

const DispatchEntry* findDispatchEntry(std::string_view selector) {
  for (const DispatchEntry& entry : HelperService::dispatchTable()) {
    if (entry.selector == selector) return &entry;
  }
  return nullptr;
}

}  // namespace

HelperServiceDependencies HelperServiceDependencies::system(const HelperServiceConfiguration& configuration,
                                                            Logger& logger) {
  auto runner = std::make_shared<CommandRunner>(defaultToolTimeout);
  return {
      runner,
      std::make_shared<SystemdCredsVault>(configuration.stateDirectory, configuration.stateOwner,
                                          configuration.systemdCredsPath, runner, logger),
      std::make_shared<PamAccountDirectory>(configuration.pamServiceDirectory),
      std::make_shared<SystemClock>(),
      std::make_shared<DockerHeartbeatManager>(
          DockerHeartbeatManagerDependencies::system(configuration.stateDirectory, configuration.stateOwner),
          logger)};
}

HelperService::HelperService(HelperServiceConfiguration configuration, HelperServiceDependencies dependencies,
                             Logger& logger)
    : configuration_(std::move(configuration)),
      commandRunner_(std::move(dependencies.commandRunner)),
      clock_(std::move(dependencies.clock)),
      credentialStore_(std::move(dependencies.credentialVault)),
      authRestartRunner_(commandRunner_, configuration_.fdesetupPath, authRestartTimeout),
      passwordVerifier_(std::move(dependencies.accountDirectory)),
      protectionStatusStore_(configuration_.stateDirectory, configuration_.stateOwner),
      heartbeatStore_(configuration_.stateDirectory, configuration_.stateOwner),
      heartbeatManager_(std::move(dependencies.heartbeatManager)),
      logger_(logger),
      operations_(std::string(operationQueueLabel)) {}

HelperService::~HelperService() { shutdown(); }

std::span<const DispatchEntry> HelperService::dispatchTable() {
  namespace selectors = ipc::selectors;
  static const DispatchEntry table[] = {
      {selectors::helperVersion, Dispatch::direct,
       [](HelperService& service, const plist::Array&) { return ipc::textReply(service.helperVersion()); }},
      {selectors::fileVaultUsersData, Dispatch::direct,
       [](HelperService& service, const plist::Array&) {
         return ipc::optionalDataReply(service.fileVaultUsersData());
       }},
      {selectors::protectionStatusData, Dispatch::direct,
       [](HelperService& service, const plist::Array&) {
         return ipc::optionalDataReply(service.protectionStatusData());
       }},
      {selectors::armNextRestart, Dispatch::queued,
       [](HelperService& service, const plist::Array& arguments) {
         return ipc::actionReply(
             service.armNextRestart(textArgument(arguments, 0), textArgument(arguments, 1)));
       }},
      {selectors::enablePersistentProtection, Dispatch::queued,
       [](HelperService& service, const plist::Array& arguments) {
         return ipc::actionReply(service.enablePersistentProtection(
             textArgument(arguments, 0), textArgument(arguments, 1), *arguments.at(2).get<Date>()));
       }},
      {selectors::armPersistentProtection, Dispatch::queued,
       [](HelperService& service, const plist::Array&) {
         return ipc::actionReply(service.armPersistentProtection());
       }},
      {selectors::disablePersistentProtection, Dispatch::queued,
       [](HelperService& service, const plist::Array&) {
         return ipc::actionReply(service.disablePersistentProtection());
       }},
      {selectors::enableAutomaticPowerRecovery, Dispatch::queued,
       [](HelperService& service, const plist::Array&) {
         return ipc::actionReply(service.enableAutomaticPowerRecovery());
       }},
      {selectors::configureDockerHeartbeat, Dispatch::queued,
       [](HelperService& service, const plist::Array& arguments) {
         return ipc::actionReply(service.configureDockerHeartbeat(*arguments.at(0).get<Bytes>()));
       }},
      {selectors::disableDockerHeartbeat, Dispatch::queued,
       [](HelperService& service, const plist::Array&) {
         return ipc::actionReply(service.disableDockerHeartbeat());
       }},
      {selectors::dockerHeartbeatStatusData, Dispatch::queued,
       [](HelperService& service, const plist::Array&) {
         return ipc::optionalDataReply(service.dockerHeartbeatStatusData());
       }},
      {selectors::prepareForUninstall, Dispatch::queued,
       [](HelperService& service, const plist::Array&) {
         return ipc::actionReply(service.prepareForUninstall());
       }},
  };
  return table;
}

void HelperService::handle(ipc::Request request, ReplyHandler reply) {
  const WipeOnExit wipe(request.arguments);  // a refused request may carry a password too
  ipc::validateRequest(request);
  const DispatchEntry* entry = findDispatchEntry(request.selector);
  // Only a selector added to the interface but not to the table gets here.
  if (entry == nullptr) {
    throw ipc::ProtocolError(ipc::ProtocolError::Kind::unknownSelector,
                             "The helper does not serve this request.");
  }
  dispatch(*entry, std::move(request.arguments), std::move(reply));
}

void HelperService::dispatch(const DispatchEntry& entry, plist::Array arguments, ReplyHandler reply) {
  if (entry.dispatch == Dispatch::direct) {
    const WipeOnExit wipe(arguments);
    reply(entry.work(*this, arguments));
    return;
  }
  operations_.async([this, work = entry.work, selector = std::string(entry.selector),
                     arguments = WipedArguments{std::move(arguments)}, reply = std::move(reply)] {
    plist::Array result;
    try {
      result = work(*this, arguments.values);
    } catch (const std::exception& error) {
      logger_.error(selector + " failed: " + error.what());
      return;
    }
    reply(std::move(result));
  });
}

bool HelperService::enqueue(std::function<void()> work) { return operations_.async(std::move(work)); }

void HelperService::shutdown() { operations_.shutdown(); }

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): a request of the service like the others
const std::string& HelperService::helperVersion() const { return HelperConstants::helperVersion(); }

FileVaultUserList HelperService::listFileVaultUsers() const {
  const CommandResult result =
      commandRunner_->run(configuration_.fdesetupPath, {"list"}, std::nullopt, fileVaultListTimeout);
  return SystemStatusService::parseFileVaultUsers(result.standardOutput, result.standardError,
                                                  result.exitCode);
}

std::optional<Bytes> HelperService::fileVaultUsersData() const {
  try {
    return listFileVaultUsers().encodeBinaryPlist();
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

// The bytes go out exactly as stored; the app decodes them itself. An insecure
// or unreadable file is as good as none.
std::optional<Bytes> HelperService::protectionStatusData() const {
  try {
    protectionStatusStore_.validateSecureStatusState();
    return protectionStatusStore_.loadData();
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace harborkeeper
