#include "helper/peer_check.h"

#include <algorithm>
#include <utility>

namespace harborkeeper {

namespace {

using Kind = PeerCheckError::Kind;

const TrustedClient* entryFor(const std::vector<TrustedClient>& clients, const std::string& path) {
  const auto found = std::find_if(clients.begin(), clients.end(),
                                  [&](const TrustedClient& client) { return client.path == path; });
  return found == clients.end() ? nullptr : &*found;
}

std::string describe(const PeerExecutable& peer) {
  return peer.path + " (pid " + std::to_string(peer.pid) + ")";
}

}  // namespace

PeerVerifier::PeerVerifier(std::string registryPath, std::vector<TrustedClient> runTrusted,
                           std::unique_ptr<PeerInspector> inspector, uid_t registryOwner,
                           ClientSigningPolicy policy)
    : registryPath_(std::move(registryPath)),
      runTrusted_(std::move(runTrusted)),
      inspector_(std::move(inspector)),
      registryOwner_(registryOwner),
      policy_(std::move(policy)) {}

PeerExecutable PeerVerifier::verify(int connectedSocket) const {
  PeerExecutable peer = inspector_->inspect(connectedSocket);
  // Read afresh every time, so removing an entry takes effect without a restart.
  std::vector<TrustedClient> registry;
  const TrustedClient* entry = entryFor(runTrusted_, peer.path);
  if (entry == nullptr) {
    registry = loadTrustedClientRegistry(registryPath_, registryOwner_);
    entry = entryFor(registry, peer.path);
  }
  if (entry == nullptr) throw PeerCheckError(Kind::notTrusted, describe(peer) + " is not a trusted client.");
  if (!policy_.allows(entry->signingInfo)) {
    throw PeerCheckError(Kind::notTrusted, describe(peer) + " is not trusted with the identity " +
                                               policy_.allowedSigningIdentifier + " of team " +
                                               policy_.allowedTeamIdentifier + ".");
  }
  return peer;
}

TrustedClient PeerVerifier::trustedAsApp(const std::string& canonicalPath) {
  const ClientSigningPolicy& app = ClientSigningPolicy::harborkeeper();
  return {canonicalPath, {app.allowedSigningIdentifier, app.allowedTeamIdentifier}};
}

}  // namespace harborkeeper
