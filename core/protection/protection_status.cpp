#include "core/protection/protection_status.h"

#include "core/foundation/plist.h"

namespace harborkeeper {

namespace {

constexpr std::string_view kNextRestart = "nextRestart";
constexpr std::string_view kPersistent = "persistent";

constexpr std::string_view kModeKey = "mode";
constexpr std::string_view kSucceededKey = "succeeded";
constexpr std::string_view kArmedAtKey = "armedAt";
constexpr std::string_view kMessageKey = "message";

}  // namespace

std::string_view rawValue(HelperProtectionMode mode) {
  return mode == HelperProtectionMode::persistent ? kPersistent : kNextRestart;
}

std::optional<HelperProtectionMode> helperProtectionModeFromRaw(std::string_view raw) {
  if (raw == kNextRestart) return HelperProtectionMode::nextRestart;
  if (raw == kPersistent) return HelperProtectionMode::persistent;
  return std::nullopt;
}

std::string_view ProtectionState::headline() const {
  switch (kind_) {
    case Kind::needsPasswordUpdate:
      return "Needs password update";
    case Kind::failed:
      return "Protection failed";
    case Kind::protectedForFutureRestarts:
      return "Protected for future restarts";
    case Kind::protectedForNextRestart:
      return "Protected for the next restart";
    case Kind::needsSetup:
      return "Needs setup";
    case Kind::fileVaultOff:
      return "FileVault is off";
    case Kind::unsupported:
      return "This Mac is not supported";
    case Kind::expired:
      return "Protection expired";
    case Kind::unknown:
      break;
  }
  return "Protection unknown";
}

ProtectionState HelperProtectionStatus::protectionState(Date currentBootDate) const {
  const bool persistent = mode == HelperProtectionMode::persistent;
  if (!succeeded) {
    return persistent ? ProtectionState::needsPasswordUpdate(message) : ProtectionState::failed(message);
  }
  // A restart since arming has used the authenticated restart up.
  if (!(armedAt > currentBootDate)) return ProtectionState::of(ProtectionState::Kind::expired);
  return ProtectionState::of(persistent ? ProtectionState::Kind::protectedForFutureRestarts
                                        : ProtectionState::Kind::protectedForNextRestart);
}

Bytes HelperProtectionStatus::encodeXml() const {
  plist::Dictionary dictionary;
  dictionary.emplace(kModeKey, std::string(rawValue(mode)));
  dictionary.emplace(kSucceededKey, succeeded);
  dictionary.emplace(kArmedAtKey, armedAt);
  dictionary.emplace(kMessageKey, message);
  return plist::encode(plist::Value(std::move(dictionary)), plist::Format::xml);
}

HelperProtectionStatus HelperProtectionStatus::decode(std::string_view bytes) {
  const plist::Value root = plist::decode(bytes);
  const plist::Dictionary& dictionary = plist::asDictionary(root);
  const auto mode = helperProtectionModeFromRaw(plist::requireString(dictionary, kModeKey));
  if (!mode) throw plist::DecodeError::corrupted();
  return HelperProtectionStatus{*mode, plist::requireBool(dictionary, kSucceededKey),
                                plist::requireDate(dictionary, kArmedAtKey),
                                plist::requireString(dictionary, kMessageKey)};
}

}  // namespace harborkeeper
