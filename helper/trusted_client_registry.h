#pragma once

#include <sys/types.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "core/protection/client_signing_policy.h"

namespace harborkeeper {

// Why a peer was refused. Every lookup error is one of these; the peer check
// fails closed on all of them. what() names the path and the reason, never
// anything the peer sent.
class PeerCheckError : public std::runtime_error {
 public:
  enum class Kind {
    registryMissing,
    registryUnreadable,
    registryInsecure,
    registryInvalid,
    peerUnknown,         // no credentials, or the process vanished
    executableGone,      // deleted or replaced since it was started
    executableInsecure,  // not root-owned, writable by others, or in an unsafe directory
    notTrusted,          // not listed, or listed with an identity the policy refuses
  };
  PeerCheckError(Kind kind, const std::string& message) : std::runtime_error(message), kind_(kind) {}
  [[nodiscard]] Kind kind() const noexcept { return kind_; }

 private:
  Kind kind_;
};

// One executable and the identity it is trusted with.
struct TrustedClient {
  std::string path;  // absolute, without links
  ClientSigningInfo signingInfo;
  bool operator==(const TrustedClient&) const = default;
};

// The trusted-client registry: a property list (XML or binary) holding an
// array of {path, identifier, teamIdentifier?}. The file must be a regular
// file owned by `expectedOwner`, not writable by group or others, reached
// without links through directories owned by `expectedOwner` and not writable
// by group or others (a sticky directory owned by `expectedOwner` counts as
// safe). Read afresh on every load. Throws PeerCheckError (registry*).
std::vector<TrustedClient> loadTrustedClientRegistry(const std::string& path, uid_t expectedOwner = 0);

// The document alone (no file checks), for load and the fuzz target. Throws
// PeerCheckError(registryInvalid) naming `path`.
std::vector<TrustedClient> decodeTrustedClientRegistry(std::string_view bytes, const std::string& path);

// The same document, for `cmake --install` and tests: XML property list.
std::string encodeTrustedClientRegistry(const std::vector<TrustedClient>& clients);

}  // namespace harborkeeper
