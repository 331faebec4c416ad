#include "cli/approval_device_commands.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>

#include "cli/approval_configuration.h"
#include "cli/approval_output.h"
#include "core/approval/phone_approval_device_assertion_signer.h"
#include "core/foundation/bytes.h"
#include "core/foundation/json.h"
#include "core/foundation/text.h"
#include "core/platform/internal/retry.h"
#include "core/platform/state_file_security.h"
#include "core/platform/unique_fd.h"

namespace harborkeeper::cli {

namespace {

struct DeviceOptions {
  std::shared_ptr<const std::string> configFile;
  std::string keyFile;
  std::string name;
  std::string apnsToken;
  std::string deviceID;
  std::string requestID;
  std::string decision;
  bool json = false;
};

const std::map<std::string, PhoneApprovalDeviceDecision> kDecisions = {
    {"approve", PhoneApprovalDeviceDecision::approved}, {"deny", PhoneApprovalDeviceDecision::denied}};

PhoneApprovalMiddlewareClient client(const DeviceOptions& o) {
  ApprovalConfiguration configuration = ApprovalConfigurationStore::chosen(*o.configFile).require();
  const WipeOnExit wipe(configuration.listenerSecret);
  return makeApprovalClient(configuration);
}

PhoneApprovalDeviceAssertionSigner loadKey(const std::string& file) {
  std::string pem = readPrivateFile(file, "a device private key");
  const WipeOnExit wipe(pem);
  try {
    return PhoneApprovalDeviceAssertionSigner::fromPEM(pem);
  } catch (const PhoneApprovalDeviceKeyError& error) {
    throw CommandError(file + ": " + error.what());
  }
}

ExitStatus init(CliContext& context, const DeviceOptions& o) {
  const PhoneApprovalDeviceAssertionSigner signer = PhoneApprovalDeviceAssertionSigner::generate();
  std::string pem = signer.privateKeyPEM();
  const WipeOnExit wipe(pem);
  writeNewPrivateFile(o.keyFile, pem);
  context.out() << json::serializePretty(encodePhoneApproval(signer.publicKeyJWK())) << '\n';
  return ExitStatus::success;
}

ExitStatus registerDevice(CliContext& context, const DeviceOptions& o) {
  const PhoneApprovalDeviceAssertionSigner signer = loadKey(o.keyFile);
  const PhoneApprovalPairedDeviceRecord record = callMiddleware([&] {
    return client(o).registerPairedDevice(text::trimmed(o.name), text::trimmed(o.apnsToken),
                                          signer.publicKeyJWK());
  });
  context.out() << (o.json ? json::serializePretty(encodePhoneApproval(record))
                           : "Registered device " + printable(record.deviceId) + " (" +
                                 printable(record.displayName) + ").")
                << '\n';
  return ExitStatus::success;
}

ExitStatus decide(CliContext& context, const DeviceOptions& o) {
  const PhoneApprovalDeviceAssertionSigner signer = loadKey(o.keyFile);
  return context.print(approvalRecordReport(callMiddleware([&] {
                                              return client(o).submitDeviceDecision(
                                                  o.requestID, o.deviceID, kDecisions.at(o.decision), signer);
                                            }),
                                            o.json));
}

[[noreturn]] void failWrite(int errorNumber, const std::filesystem::path& file) {
  throw CommandError(FileSystemError(errorNumber, "Could not write", file.string()).what());
}

}  // namespace

void writeNewPrivateFile(const std::filesystem::path& file, std::string_view content) {
  const UniqueFd fd(
      ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0600));
  if (!fd && errno == EEXIST) {
    throw CommandError(file.string() + " already exists; a key file is never overwritten.");
  }
  if (!fd) failWrite(errno, file);
  try {
    if (::fchmod(fd.get(), 0600) != 0) failWrite(errno, file);
    while (!content.empty()) {
      const ssize_t count =
          internal::retryOnInterrupt([&] { return ::write(fd.get(), content.data(), content.size()); });
      if (count < 0) failWrite(errno, file);
      content.remove_prefix(static_cast<std::size_t>(count));
    }
    if (::fsync(fd.get()) != 0) failWrite(errno, file);
  } catch (...) {
    ::unlink(file.c_str());
    throw;
  }
}

void registerApprovalDeviceCommands(CLI::App& approval, CliContext& context,
                                    std::shared_ptr<const std::string> configFile) {
  CLI::App* group = approval.add_subcommand(
      "device", "Act as a paired phone: keep a device key, pair it and decide on requests");
  group->require_subcommand(1);
  auto o = std::make_shared<DeviceOptions>();
  o->configFile = std::move(configFile);
  const auto addKeyOption = [&](CLI::App& command, const std::string& description) {
    command.add_option("--key", o->keyFile, description)->type_name("FILE")->required();
  };

  CLI::App* initCommand = group->add_subcommand(
      "init", "Make a new P-256 device key in a new file (mode 0600) and print its public JWK");
  addKeyOption(*initCommand, "The file to create; an existing one is never overwritten");
  context.onRun(*initCommand, [&context, o] { return init(context, *o); });

  CLI::App* registerCommand = group->add_subcommand(
      "register", "Pair the device key with this machine's listener, which signs the request");
  registerCommand->add_option("--name", o->name, "Name the listener shows for the device")->required();
  registerCommand->add_option("--apns-token", o->apnsToken, "The device's push notification token")
      ->type_name("TOKEN")
      ->required();
  addKeyOption(*registerCommand, "The device key (see device init)");
  CliContext::addJsonFlag(*registerCommand, o->json);
  context.onRun(*registerCommand, [&context, o] { return registerDevice(context, *o); });

  CLI::App* decideCommand = group->add_subcommand(
      "decide", "Approve or deny a request, signed with the device key; prints the request as it now stands");
  decideCommand->add_option("ID", o->requestID, "The request's id")->required();
  decideCommand->add_option("DECISION", o->decision, "approve or deny")
      ->required()
      ->check(CLI::IsMember({"approve", "deny"}));
  decideCommand->add_option("--device-id", o->deviceID, "The id the listener gave the device")
      ->type_name("ID")
      ->required();
  addKeyOption(*decideCommand, "The device key");
  CliContext::addJsonFlag(*decideCommand, o->json);
  context.onRun(*decideCommand, [&context, o] { return decide(context, *o); });
}

}  // namespace harborkeeper::cli
