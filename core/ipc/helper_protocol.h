#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "core/foundation/bytes.h"
#include "core/foundation/plist.h"

// The daemon's request/reply messages and its interface: which selectors
// exist, what arguments each takes and what shape its reply has. Shared by the
// daemon (which adds how each one runs) and every client.
namespace harborkeeper::ipc {

enum class ArgumentType { text, date, data };

// [string] | [] or [data] | [bool, string]
enum class ReplyType { text, optionalData, action };

struct InterfaceEntry {
  std::string_view selector;
  std::span<const ArgumentType> arguments;
  ReplyType reply;
};

namespace selectors {
inline constexpr std::string_view helperVersion = "helperVersionWithReply:";
inline constexpr std::string_view fileVaultUsersData = "fileVaultUsersDataWithReply:";
inline constexpr std::string_view protectionStatusData = "protectionStatusDataWithReply:";
inline constexpr std::string_view armNextRestart = "armNextRestartWithUsername:password:withReply:";
inline constexpr std::string_view enablePersistentProtection =
    "enablePersistentProtectionWithUsername:password:authorizationExpiresAt:withReply:";
inline constexpr std::string_view armPersistentProtection = "armPersistentProtectionWithReply:";
inline constexpr std::string_view disablePersistentProtection = "disablePersistentProtectionWithReply:";
inline constexpr std::string_view enableAutomaticPowerRecovery = "enableAutomaticPowerRecoveryWithReply:";
inline constexpr std::string_view configureDockerHeartbeat = "configureDockerHeartbeatWithData:withReply:";
inline constexpr std::string_view disableDockerHeartbeat = "disableDockerHeartbeatWithReply:";
inline constexpr std::string_view dockerHeartbeatStatusData = "dockerHeartbeatStatusDataWithReply:";
inline constexpr std::string_view prepareForUninstall = "prepareForUninstallWithReply:";
}  // namespace selectors

// Every selector the daemon serves, in the protocol's order.
std::span<const InterfaceEntry> helperInterface();
// Null for a selector that is not in the interface.
const InterfaceEntry* findInterfaceEntry(std::string_view selector);

// The (success, message) pair every action replies with.
struct HelperCommandResult {
  bool success = false;
  std::string message;
  bool operator==(const HelperCommandResult&) const = default;
};

// {id: integer, selector: string, arguments: [...]}
struct Request {
  std::int64_t id = 0;
  std::string selector;
  plist::Array arguments;
  bool operator==(const Request&) const = default;
};

// {id: integer, reply: [...]}
struct Reply {
  std::int64_t id = 0;
  plist::Array reply;
  bool operator==(const Reply&) const = default;
};

// Binary property lists. Encoding throws plist::EncodeError for text that is
// not valid UTF-8.
Bytes encodeRequest(const Request& request);
Bytes encodeReply(const Reply& reply);

// Throws ProtocolError: notPropertyList, badShape (missing or mistyped id,
// selector, arguments or reply; extra keys are ignored).
Request decodeRequest(std::string_view payload);
Reply decodeReply(std::string_view payload);

// Checks a decoded request against the interface. Throws ProtocolError
// (unknownSelector, badArguments) and returns the entry otherwise.
const InterfaceEntry& validateRequest(const Request& request);

// Typed reply builders and readers. The readers throw ProtocolError(badShape)
// for a reply of another shape.
plist::Array textReply(std::string text);
plist::Array optionalDataReply(std::optional<Bytes> data);
plist::Array actionReply(const HelperCommandResult& result);
std::string readTextReply(const plist::Array& reply);
std::optional<Bytes> readOptionalDataReply(const plist::Array& reply);
HelperCommandResult readActionReply(const plist::Array& reply);
// Whether `reply` has the shape `type` requires.
bool replyMatches(ReplyType type, const plist::Array& reply);

}  // namespace harborkeeper::ipc
