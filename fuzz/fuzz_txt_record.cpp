// A TXT record from the network decodes to non-empty, valid UTF-8 keys, and
// whatever decoded survives being written and read again unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "core/foundation/text.h"
#include "core/recovery/dns_service_discovery.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace harborkeeper;
  const TXTRecord record = decodeTXTRecord({data, size});
  for (const auto& [key, value] : record) {
    if (key.empty() || key.find('=') != std::string::npos) std::abort();
    if (text::repairedUtf8(key) != key || text::repairedUtf8(value) != value) std::abort();
  }
  std::vector<std::uint8_t> encoded;
  try {
    encoded = encodeTXTRecord(record);
  } catch (const ServiceDiscoveryError&) {
    return 0;  // repairing grew an entry past 255 bytes
  }
  if (decodeTXTRecord(encoded) != record) std::abort();
  return 0;
}
