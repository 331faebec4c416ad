#include "helper/helper_service.h"

#include <exception>
#include <utility>

#include "core/ipc/frame_codec.h"
#include "core/protection/file_vault_users.h"
#include "core/protection/protection_status_store.h"

namespace harborkeeper {

namespace {

constexpr double fileVaultListTimeout = 30.0;

const DispatchEntry* findDispatchEntry(std::string_view selector) {
  for (const DispatchEntry& entry : HelperService::dispatchTable()) {
    if (entry.selector == selector) return &entry;
  }
  return nullptr;
}

}  // namespace

HelperService::HelperService(HelperServiceConfiguration configuration,
                             std::shared_ptr<const CommandExecutor> commandRunner, Logger& logger)
    : configuration_(std::move(configuration)),
      commandRunner_(std::move(commandRunner)),
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
  };
  return table;
}

void HelperService::handle(const ipc::Request& request, ReplyHandler reply) {
  ipc::validateRequest(request);
  const DispatchEntry* entry = findDispatchEntry(request.selector);
  // Only a selector added to the interface but not to the table gets here.
  if (entry == nullptr) {
    throw ipc::ProtocolError(ipc::ProtocolError::Kind::unknownSelector,
                             "The helper does not serve this request.");
  }
  dispatch(*entry, request.arguments, std::move(reply));
}

void HelperService::dispatch(const DispatchEntry& entry, plist::Array arguments, ReplyHandler reply) {
  if (entry.dispatch == Dispatch::direct) {
    reply(entry.work(*this, arguments));
    return;
  }
  operations_.async([this, work = entry.work, selector = std::string(entry.selector),
                     arguments = std::move(arguments), reply = std::move(reply)] {
    plist::Array result;
    try {
      result = work(*this, arguments);
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

std::optional<Bytes> HelperService::fileVaultUsersData() const {
  const CommandResult result =
      commandRunner_->run(configuration_.fdesetupPath, {"list"}, std::nullopt, fileVaultListTimeout);
  const FileVaultUserList list =
      SystemStatusService::parseFileVaultUsers(result.standardOutput, result.standardError, result.exitCode);
  try {
    return list.encodeBinaryPlist();
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

// The bytes go out exactly as stored; the app decodes them itself. An insecure
// or unreadable file is as good as none.
std::optional<Bytes> HelperService::protectionStatusData() const {
  try {
    const ProtectionStatusStore store(configuration_.stateDirectory, configuration_.stateOwner);
    store.validateSecureStatusState();
    return store.loadData();
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace harborkeeper
