#pragma once

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <string_view>

#include "core/approval/phone_approval_records.h"
#include "core/foundation/base64.h"

namespace harborkeeper::testing_support {

// Rebuilds the public key from the JWK alone, as the service does: the
// coordinates behind the fixed SubjectPublicKeyInfo prefix of a P-256 key.
inline std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> keyFromJWK(
    const PhoneApprovalDevicePublicKeyJWK& jwk) {
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(nullptr, &EVP_PKEY_free);
  const auto x = base64::decodeUrl(jwk.x);
  const auto y = base64::decodeUrl(jwk.y);
  if (jwk.kty != "EC" || jwk.crv != "P-256" || !x || !y || x->size() != 32 || y->size() != 32) return key;
  Bytes der{0x30, 0x59, 0x30, 0x13, 0x06, 0x07, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x02, 0x01, 0x06,
            0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07, 0x03, 0x42, 0x00, 0x04};
  der.insert(der.end(), x->begin(), x->end());
  der.insert(der.end(), y->begin(), y->end());
  const unsigned char* cursor = der.data();
  key.reset(d2i_PUBKEY(nullptr, &cursor, static_cast<long>(der.size())));
  return key;
}

// Whether `signature` (base64url of raw r||s) is an ECDSA-SHA256 signature of
// `message` by the key the JWK describes.
inline bool verifies(const PhoneApprovalDevicePublicKeyJWK& jwk, std::string_view message,
                     const std::string& signature) {
  const auto raw = base64::decodeUrl(signature);
  const auto key = keyFromJWK(jwk);
  if (!raw || raw->size() != 64 || !key) return false;
  ECDSA_SIG* parsed = ECDSA_SIG_new();
  ECDSA_SIG_set0(parsed, BN_bin2bn(raw->data(), 32, nullptr), BN_bin2bn(raw->data() + 32, 32, nullptr));
  unsigned char* der = nullptr;
  const int derLength = i2d_ECDSA_SIG(parsed, &der);
  ECDSA_SIG_free(parsed);
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  const bool good =
      EVP_DigestVerifyInit(context, nullptr, EVP_sha256(), nullptr, key.get()) == 1 &&
      EVP_DigestVerify(context, der, derLength, reinterpret_cast<const unsigned char*>(message.data()),
                       message.size()) == 1;
  EVP_MD_CTX_free(context);
  OPENSSL_free(der);
  return good;
}

}  // namespace harborkeeper::testing_support
