// A TXT record from the network decodes to non-empty, valid UTF-8 keys without
// "=", and whatever decoded survives being written and read again unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "core/foundation/text.h"
#include "core/recovery/dns_service_discovery.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace harborkeeper;
  const TXTRecord record = decodeTXTRecord({data, size});
  for (const auto& [key, value] : record) {
    const bool valid = !key.empty() && key.find('=') == std::string::npos && text::repairedUtf8(key) == key &&
                       text::repairedUtf8(value) == value;
    if (!valid) std::abort();
  }
  try {
    if (decodeTXTRecord(encodeTXTRecord(record)) != record) std::abort();
  } catch (const ServiceDiscoveryError&) {
    // Repairing grew an entry past 255 bytes.
  }
  return 0;
}
