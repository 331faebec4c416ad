#include "helper/trusted_client_registry.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <system_error>

#include "core/foundation/plist.h"
#include "helper/secure_path.h"

namespace harborkeeper {

namespace {

using Kind = PeerCheckError::Kind;

constexpr std::size_t kMaximumSize = std::size_t{1} << 20;
constexpr std::string_view kPathKey = "path", kIdentifierKey = "identifier", kTeamKey = "teamIdentifier";

std::string subject(const std::string& path) { return "The trusted-client registry " + path; }

PeerCheckError invalid(const std::string& path) {
  return {Kind::registryInvalid, subject(path) + " is not a valid list of clients."};
}

PeerCheckError unreadable(const std::string& path, int errorNumber) {
  return {Kind::registryUnreadable,
          subject(path) + " could not be read: " + std::generic_category().message(errorNumber) + "."};
}

PeerCheckError fromSecurePathError(const SecurePathError& error, const std::string& path) {
  switch (error.kind()) {
    case SecurePathError::Kind::missing:
      return {Kind::registryMissing, subject(path) + " does not exist."};
    case SecurePathError::Kind::unreadable:
      return {Kind::registryUnreadable, subject(path) + " could not be read: " + error.what()};
    default:
      return {Kind::registryInsecure, subject(path) + " is not safe: " + error.what()};
  }
}

// An unknown key is refused rather than skipped: a misspelt teamIdentifier
// should say the file is wrong, not that the client is.
TrustedClient clientFrom(const plist::Value& value) {
  const plist::Dictionary& entry = plist::asDictionary(value);
  for (const auto& [key, item] : entry) {
    if (key != kPathKey && key != kIdentifierKey && key != kTeamKey) throw plist::DecodeError::corrupted();
  }
  TrustedClient client{plist::requireString(entry, kPathKey),
                       {plist::requireString(entry, kIdentifierKey), plist::optionalString(entry, kTeamKey)}};
  if (!client.path.starts_with('/')) throw plist::DecodeError::corrupted();
  return client;
}

std::string readAll(int fd, const std::string& path) {
  std::string bytes;
  char buffer[16384];
  while (bytes.size() <= kMaximumSize) {
    const ssize_t count = ::read(fd, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw unreadable(path, errno);
    if (count == 0) return bytes;
    bytes.append(buffer, static_cast<std::size_t>(count));
  }
  throw invalid(path);
}

}  // namespace

std::vector<TrustedClient> decodeTrustedClientRegistry(std::string_view bytes, const std::string& path) {
  try {
    const plist::Value document = plist::decode(bytes);
    const auto* entries = document.get<plist::Array>();
    if (entries == nullptr) throw plist::DecodeError::corrupted();
    std::vector<TrustedClient> clients;
    clients.reserve(entries->size());
    for (const plist::Value& entry : *entries) clients.push_back(clientFrom(entry));
    return clients;
  } catch (const plist::DecodeError&) {
    throw invalid(path);
  }
}

std::vector<TrustedClient> loadTrustedClientRegistry(const std::string& path, uid_t expectedOwner) {
  UniqueFd fd;
  try {
    fd = openSecurely(path, expectedOwner);
  } catch (const SecurePathError& error) {
    throw fromSecurePathError(error, path);
  }
  return decodeTrustedClientRegistry(readAll(fd.get(), path), path);
}

std::string encodeTrustedClientRegistry(const std::vector<TrustedClient>& clients) {
  plist::Array entries;
  entries.reserve(clients.size());
  for (const TrustedClient& client : clients) {
    plist::Dictionary entry{{std::string(kPathKey), client.path},
                            {std::string(kIdentifierKey), client.signingInfo.identifier}};
    if (client.signingInfo.teamIdentifier) entry.emplace(kTeamKey, *client.signingInfo.teamIdentifier);
    entries.emplace_back(std::move(entry));
  }
  return toString(plist::encode(entries, plist::Format::xml));
}

}  // namespace harborkeeper
