// A registry the decoder accepts must write back as a document that decodes
// to the same clients.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "helper/trusted_client_registry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace harborkeeper;
  std::vector<TrustedClient> clients;
  try {
    clients = decodeTrustedClientRegistry(std::string_view(reinterpret_cast<const char*>(data), size), "/r");
  } catch (const PeerCheckError& error) {
    if (error.kind() != PeerCheckError::Kind::registryInvalid) std::abort();
    return 0;
  }
  if (decodeTrustedClientRegistry(encodeTrustedClientRegistry(clients), "/r") != clients) std::abort();
  return 0;
}
