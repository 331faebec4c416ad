#include "core/protection/file_vault_users.h"

#include "core/foundation/plist.h"
#include "core/foundation/text.h"

namespace harborkeeper {

namespace {

constexpr std::string_view kUsersKey = "users";
constexpr std::string_view kUnavailableReasonKey = "unavailableReason";
constexpr std::string_view kDisplayNameKey = "displayName";
constexpr std::string_view kUuidKey = "uuid";

// Splits at "\n", "\r\n" and "\r", dropping empty lines.
std::vector<std::string_view> nonEmptyLines(std::string_view text) {
  std::vector<std::string_view> lines;
  std::size_t start = 0;
  for (std::size_t i = 0; i <= text.size(); ++i) {
    if (i < text.size() && text[i] != '\n' && text[i] != '\r') continue;
    if (i > start) lines.push_back(text.substr(start, i - start));
    start = i + 1;
  }
  return lines;
}

// "name,uuid": split at the first comma only, so a UUID field may hold commas.
std::optional<FileVaultUser> parseUserLine(std::string_view line) {
  const std::string trimmed = text::trimmed(line);
  const auto comma = trimmed.find(',');
  std::string name = text::trimmed(std::string_view(trimmed).substr(0, comma));
  if (name.empty()) return std::nullopt;
  FileVaultUser user{std::move(name), std::nullopt};
  if (comma != std::string::npos) {
    std::string uuid = text::trimmed(std::string_view(trimmed).substr(comma + 1));
    if (!uuid.empty()) user.uuid = std::move(uuid);
  }
  return user;
}

plist::Value userValue(const FileVaultUser& user) {
  plist::Dictionary dictionary;
  dictionary.emplace(kDisplayNameKey, user.displayName);
  if (user.uuid) dictionary.emplace(kUuidKey, *user.uuid);
  return plist::Value(std::move(dictionary));
}

FileVaultUser userFromValue(const plist::Value& value) {
  const plist::Dictionary& dictionary = plist::asDictionary(value);
  return FileVaultUser{plist::requireString(dictionary, kDisplayNameKey),
                       plist::optionalString(dictionary, kUuidKey)};
}

}  // namespace

FileVaultUserList FileVaultUserList::requiresHelper() {
  return FileVaultUserList{{}, std::string(helperRequiredReason)};
}

std::string FileVaultUserList::displayName() const {
  if (!isAvailable()) return "Unknown";
  switch (users.size()) {
    case 0:
      return "None reported";
    case 1:
      return "1 user";
    default:
      return std::to_string(users.size()) + " users";
  }
}

std::string_view FileVaultUserList::detail() const {
  if (unavailableReason) {
    return *unavailableReason == helperRequiredReason ? helperRequiredReason : genericUnavailableReason;
  }
  return users.empty() ? "The helper did not report any FileVault-enabled users."
                       : "Harborkeeper can offer detected users during setup.";
}

Bytes FileVaultUserList::encodeBinaryPlist() const {
  plist::Array array;
  array.reserve(users.size());
  for (const FileVaultUser& user : users) array.push_back(userValue(user));
  plist::Dictionary dictionary;
  dictionary.emplace(kUsersKey, std::move(array));
  if (unavailableReason) dictionary.emplace(kUnavailableReasonKey, *unavailableReason);
  return plist::encode(plist::Value(std::move(dictionary)), plist::Format::binary);
}

FileVaultUserList FileVaultUserList::decode(std::string_view bytes) {
  const plist::Value root = plist::decode(bytes);
  const plist::Dictionary& dictionary = plist::asDictionary(root);
  FileVaultUserList list;
  for (const plist::Value& user : plist::requireArray(dictionary, kUsersKey)) {
    list.users.push_back(userFromValue(user));
  }
  list.unavailableReason = plist::optionalString(dictionary, kUnavailableReasonKey);
  return list;
}

json::Json FileVaultUserList::toJson() const {
  json::Json array = json::Json::array();
  for (const FileVaultUser& user : users) {
    json::Json entry = {{kDisplayNameKey, user.displayName}};
    if (user.uuid) entry[kUuidKey] = *user.uuid;
    array.push_back(std::move(entry));
  }
  json::Json object = {{kUsersKey, std::move(array)}};
  if (unavailableReason) object[kUnavailableReasonKey] = *unavailableReason;
  return object;
}

FileVaultUserList SystemStatusService::parseFileVaultUsers(std::string_view output, std::string_view error,
                                                           std::int32_t exitCode) {
  FileVaultUserList list;
  if (exitCode == 0) {
    for (const std::string_view line : nonEmptyLines(output)) {
      if (auto user = parseUserLine(line)) list.users.push_back(std::move(*user));
    }
    return list;
  }
  for (const std::string_view text : {error, output}) {
    std::string reason = text::trimmed(text);
    if (!reason.empty()) {
      list.unavailableReason = std::move(reason);
      return list;
    }
  }
  list.unavailableReason = "fdesetup list failed with exit code " + std::to_string(exitCode) + ".";
  return list;
}

}  // namespace harborkeeper
