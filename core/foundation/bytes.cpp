#include "core/foundation/bytes.h"

#include <openssl/crypto.h>

namespace harborkeeper {

Bytes toBytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

std::string toString(const Bytes& bytes) { return std::string(asStringView(bytes)); }

// The whole capacity is cleansed: earlier, shorter contents may linger past size().
void secureWipe(std::string& secret) noexcept {
  secret.resize(secret.capacity());
  OPENSSL_cleanse(secret.data(), secret.size());
  secret.clear();
}

void secureWipe(Bytes& secret) noexcept {
  OPENSSL_cleanse(secret.data(), secret.capacity());
  secret.clear();
}

}  // namespace harborkeeper
