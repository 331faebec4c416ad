#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "core/protection/client_signing_policy.h"
#include "helper/trusted_client_registry.h"

namespace harborkeeper {

// The executable of the process at the other end of a connection.
struct PeerExecutable {
  pid_t pid = 0;
  std::string path;  // canonical, as the kernel reports it
};

// The seam between the peer check's rules and the system. The Linux
// implementation takes the peer's pidfd (SO_PEERPIDFD, or SO_PEERCRED +
// pidfd_open on older kernels), reads /proc/PID/exe, opens the path it names
// with openSecurely() and requires it to be the very file the process runs,
// then confirms through the pidfd that the process is still alive, so a
// recycled pid cannot pass. Throws PeerCheckError (peerUnknown,
// executableGone, executableInsecure).
class PeerInspector {
 public:
  virtual ~PeerInspector() = default;
  virtual PeerExecutable inspect(int connectedSocket) const = 0;
};

std::unique_ptr<PeerInspector> makeProcPeerInspector(uid_t expectedOwner = 0);

// Admits a connection only when its peer's executable is trusted with an
// identity that `policy` allows. Trusted executables come from the run's own
// list (--trust-client) first, then from the registry file, re-read on every
// check. Thread-safe (const).
class PeerVerifier final {
 public:
  PeerVerifier(std::string registryPath, std::vector<TrustedClient> runTrusted,
               std::unique_ptr<PeerInspector> inspector, uid_t registryOwner = 0,
               ClientSigningPolicy policy = ClientSigningPolicy::harborkeeper());

  // Returns the admitted executable; throws PeerCheckError for every refusal
  // and every lookup error.
  PeerExecutable verify(int connectedSocket) const;

  // The identity a --trust-client executable gets: the app's.
  static TrustedClient trustedAsApp(const std::string& canonicalPath);

 private:
  std::string registryPath_;
  std::vector<TrustedClient> runTrusted_;
  std::unique_ptr<PeerInspector> inspector_;
  uid_t registryOwner_;
  ClientSigningPolicy policy_;
};

}  // namespace harborkeeper
