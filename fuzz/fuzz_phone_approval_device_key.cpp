// A device key file and a public point of any content: either refused with
// the signer's own error, or usable, with a JWK that describes the same key
// whichever way it was read.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "core/approval/phone_approval_device_assertion_signer.h"
#include "core/foundation/base64.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace harborkeeper;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    const auto signer = PhoneApprovalDeviceAssertionSigner::fromPEM(text);
    const PhoneApprovalDevicePublicKeyJWK jwk = signer.publicKeyJWK();
    Bytes point{0x04};
    for (const std::string& coordinate : {jwk.x, jwk.y}) {
      const auto bytes = base64::decodeUrl(coordinate);
      if (!bytes || bytes->size() != 32) std::abort();
      point.insert(point.end(), bytes->begin(), bytes->end());
    }
    if (PhoneApprovalDeviceAssertionSigner::publicKeyJWK(point) != jwk) std::abort();
  } catch (const PhoneApprovalDeviceKeyError& error) {
    if (error.kind() != PhoneApprovalDeviceKeyError::Kind::invalidPrivateKey) std::abort();
  }
  try {
    (void)PhoneApprovalDeviceAssertionSigner::publicKeyJWK(Bytes(data, data + size));
  } catch (const PhoneApprovalDeviceKeyError& error) {
    if (error.kind() != PhoneApprovalDeviceKeyError::Kind::invalidPublicKey) std::abort();
  }
  return 0;
}
