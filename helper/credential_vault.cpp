#include "helper/credential_vault.h"

#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "core/foundation/bytes.h"
#include "core/foundation/plist.h"

namespace harborkeeper {
namespace {

// An item no property list can carry (a name that is not UTF-8): the
// keychain-style parameter error, since nothing about the store is at fault.
constexpr OSStatus kInvalidItem = -50;

constexpr std::string_view kSealFailure = "Could not seal the persistent credential: ";
constexpr std::string_view kUnsealFailure = "Could not unseal the persistent credential: ";

// Building the line may itself run out of memory; a lost log line must not end the daemon.
void logFailure(Logger& logger, std::string_view prefix, std::string_view cause) noexcept {
  try {
    logger.error(std::string(prefix).append(cause));
  } catch (...) {
    logger.error(prefix);
  }
}

std::vector<std::string> toolArguments(std::string_view verb, std::string_view service) {
  return {std::string(verb), "--name=" + std::string(service), "-", "-"};
}

// Not launched, or stopped at its time limit: says nothing about the sealed file.
bool toolUnavailable(const CommandResult& result) { return result.timedOut || result.exitCode == -1; }

// The tool's own account of a failure; it never echoes its standard input.
std::string failureOf(const CommandResult& result) {
  if (toolUnavailable(result)) return result.standardError;
  std::string cause = "systemd-creds exited with status " + std::to_string(result.exitCode);
  if (!result.standardError.empty()) cause += ": " + result.standardError;
  return cause;
}

// The password is moved, never copied, into the value, so wiping the value
// reaches every copy of it.
Bytes encodeItem(const CredentialItem& item) {
  plist::Dictionary dictionary{
      {"service", item.service},
      {"account", item.account},
      {"label", item.label},
      {"description", item.description},
      {"accessibility", item.accessibility},
  };
  dictionary.emplace("password", Bytes(item.passwordData.begin(), item.passwordData.end()));
  plist::Value value(std::move(dictionary));
  const WipeOnExit wipe(value);
  return plist::encode(value, plist::Format::xml);
}

// Throws plist::DecodeError for anything but an item of `service`. The
// password is only checked for presence and type: its content is the store's
// business.
CredentialItem decodeItem(std::string_view plaintext, std::string_view service) {
  plist::Value value = plist::decode(plaintext);
  const WipeOnExit wipe(value);
  const plist::Dictionary& dictionary = plist::asDictionary(value);
  CredentialItem item;
  item.service = plist::requireString(dictionary, "service");
  if (item.service != service) throw plist::DecodeError::corrupted();
  item.account = plist::requireString(dictionary, "account");
  item.label = plist::requireString(dictionary, "label");
  item.description = plist::requireString(dictionary, "description");
  item.accessibility = plist::requireString(dictionary, "accessibility");
  item.passwordData.assign(asStringView(plist::requireData(dictionary, "password")));
  return item;
}

}  // namespace

CredentialItem::~CredentialItem() { secureWipe(passwordData); }

SystemdCredsVault::SystemdCredsVault(std::string stateDirectory, uid_t expectedOwner,
                                     std::string systemdCredsPath,
                                     std::shared_ptr<const CommandExecutor> commandRunner, Logger& logger)
    : file_(std::move(stateDirectory), std::string(fileName), expectedOwner),
      systemdCredsPath_(std::move(systemdCredsPath)),
      commandRunner_(std::move(commandRunner)),
      logger_(logger) {}

OSStatus SystemdCredsVault::resolve() noexcept {
  struct stat status {};
  const bool usable = !systemdCredsPath_.empty() && systemdCredsPath_.front() == '/' &&
                      ::stat(systemdCredsPath_.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
                      ::access(systemdCredsPath_.c_str(), X_OK) == 0;
  if (usable) return KeychainStatus::success;
  logFailure(logger_, "The credential sealing tool is not an executable file: ", systemdCredsPath_);
  return KeychainStatus::notAvailable;
}

// The vault has a single slot, so every service names it.
OSStatus SystemdCredsVault::deleteItems(std::string_view /*service*/) noexcept {
  try {
    return file_.remove() ? KeychainStatus::success : KeychainStatus::itemNotFound;
  } catch (const std::exception& error) {
    logFailure(logger_, "Could not remove the persistent credential: ", error.what());
    return KeychainStatus::ioError;
  }
}

OSStatus SystemdCredsVault::addItem(const CredentialItem& item) noexcept {
  try {
    Bytes plaintext = encodeItem(item);
    const WipeOnExit wipe(plaintext);
    const CommandResult sealed = commandRunner_->run(
        systemdCredsPath_, toolArguments("encrypt", item.service), asStringView(plaintext));
    if (sealed.exitCode != 0 || toolUnavailable(sealed) || sealed.standardOutput.empty()) {
      logFailure(logger_, kSealFailure,
                 sealed.exitCode == 0 ? "systemd-creds printed nothing." : failureOf(sealed));
      return KeychainStatus::notAvailable;
    }
    file_.write(toBytes(sealed.standardOutput + "\n"));
    return KeychainStatus::success;
  } catch (const plist::EncodeError& error) {
    logFailure(logger_, kSealFailure, error.what());
    return kInvalidItem;
  } catch (const std::exception& error) {
    logFailure(logger_, "Could not store the persistent credential: ", error.what());
    return KeychainStatus::ioError;
  }
}

OSStatus SystemdCredsVault::copyItem(std::string_view service, std::optional<CredentialItem>& item) noexcept {
  item.reset();
  try {
    const std::optional<Bytes> sealed = file_.read();
    if (!sealed) return KeychainStatus::itemNotFound;
    CommandResult opened =
        commandRunner_->run(systemdCredsPath_, toolArguments("decrypt", service), asStringView(*sealed));
    const WipeOnExit wipe(opened.standardOutput);
    if (opened.exitCode != 0 || toolUnavailable(opened)) {
      logFailure(logger_, kUnsealFailure, failureOf(opened));
      return toolUnavailable(opened) ? KeychainStatus::notAvailable : KeychainStatus::decodeFailed;
    }
    try {
      item = decodeItem(opened.standardOutput, service);
    } catch (const std::exception& error) {
      logFailure(logger_, "The unsealed persistent credential is not a credential item: ", error.what());
      return KeychainStatus::decodeFailed;
    }
    return KeychainStatus::success;
  } catch (const std::exception& error) {
    logFailure(logger_, "Could not read the persistent credential: ", error.what());
    return KeychainStatus::ioError;
  }
}

}  // namespace harborkeeper
