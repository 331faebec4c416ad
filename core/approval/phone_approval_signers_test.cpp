#include <gtest/gtest.h>

#include "core/approval/phone_approval_device_assertion_signer.h"
#include "core/foundation/base64.h"

namespace harborkeeper {
namespace {

// Listener and device signatures, and the header and key forms they travel
// in, are verified against the registered JWK and secret by phone_approval_test's
// stand-in middleware, with Python's hmac and cryptography.

// Written and read back, a key must stay the same key.
TEST(PhoneApprovalDeviceAssertionSignerTest, PEMRoundTripKeepsTheKey) {
  const auto signer = PhoneApprovalDeviceAssertionSigner::generate();
  EXPECT_EQ(PhoneApprovalDeviceAssertionSigner::fromPEM(signer.privateKeyPEM()).publicKeyJWK(),
            signer.publicKeyJWK());
}

// A valid key on another curve is refused by fuzz_phone_approval_device_key,
// replayed over its corpus (p384.pem).
TEST(PhoneApprovalDeviceAssertionSignerTest, RefusesKeysThatAreNotP256) {
  const std::string p256 = PhoneApprovalDeviceAssertionSigner::generate().privateKeyPEM();
  const std::string encrypted =
      "-----BEGIN ENCRYPTED PRIVATE "
      "KEY-----\nMIGbMFcGCSqGSIb3DQEFDTBKMCkGCSqGSIb3DQEFDDAcBAgAAAAAAAAAAAICCAAw\n"
      "-----END ENCRYPTED PRIVATE KEY-----\n";
  for (const std::string& pem :
       {std::string(), std::string("not a key"), p256.substr(0, p256.size() / 2), encrypted}) {
    SCOPED_TRACE(pem.substr(0, 40));
    try {
      (void)PhoneApprovalDeviceAssertionSigner::fromPEM(pem);
      ADD_FAILURE() << "loaded";
    } catch (const PhoneApprovalDeviceKeyError& error) {
      EXPECT_EQ(error.kind(), PhoneApprovalDeviceKeyError::Kind::invalidPrivateKey);
      EXPECT_STREQ(error.what(), "The device key is not a P-256 private key in PEM form.");
    }
  }
}

TEST(PhoneApprovalDeviceAssertionSignerTest, JWKOfAnUncompressedPoint) {
  const PhoneApprovalDevicePublicKeyJWK jwk = PhoneApprovalDeviceAssertionSigner::generate().publicKeyJWK();
  Bytes point{0x04};
  for (const std::string& coordinate : {jwk.x, jwk.y}) {
    const auto bytes = base64::decodeUrl(coordinate);
    ASSERT_TRUE(bytes && bytes->size() == 32) << coordinate;
    point.insert(point.end(), bytes->begin(), bytes->end());
  }
  EXPECT_EQ(PhoneApprovalDeviceAssertionSigner::publicKeyJWK(point), jwk);

  Bytes offCurve = point;
  offCurve.back() ^= 0x01;
  Bytes compressed(point.begin(), point.begin() + 33);
  compressed[0] = 0x02;
  for (const Bytes& bad : {offCurve, compressed, Bytes{}}) {
    EXPECT_THROW((void)PhoneApprovalDeviceAssertionSigner::publicKeyJWK(bad), PhoneApprovalDeviceKeyError);
  }
}

}  // namespace
}  // namespace harborkeeper
