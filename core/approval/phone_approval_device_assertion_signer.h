#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "core/approval/phone_approval_records.h"
#include "core/foundation/bytes.h"
#include "core/foundation/date_time.h"

struct evp_pkey_st;  // OpenSSL's EVP_PKEY

namespace harborkeeper {

// A device key that cannot be read or used. what() never holds key material.
class PhoneApprovalDeviceKeyError : public std::runtime_error {
 public:
  enum class Kind { invalidPrivateKey, invalidPublicKey, cryptoFailure };
  PhoneApprovalDeviceKeyError(Kind kind, const std::string& message)
      : std::runtime_error(message), kind_(kind) {}
  // "The device key is not a P-256 private key in PEM form."
  static PhoneApprovalDeviceKeyError invalidPrivateKey();
  // "The device public key is not an uncompressed P-256 point."
  static PhoneApprovalDeviceKeyError invalidPublicKey();
  // "Device key operation failed: <step>."
  static PhoneApprovalDeviceKeyError cryptoFailure(std::string_view step);
  [[nodiscard]] Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

// A paired phone's P-256 signing key: signs approve/deny decisions and
// exports its public half as a JWK. Move-only; the key is freed (and its
// private scalar cleared) when the signer is destroyed; a moved-from signer
// may only be destroyed or assigned to. Const operations are safe from
// several threads.
class PhoneApprovalDeviceAssertionSigner final {
 public:
  // A fresh random key. Throws PhoneApprovalDeviceKeyError (cryptoFailure).
  static PhoneApprovalDeviceAssertionSigner generate();
  // A PEM "PRIVATE KEY" (PKCS#8) or "EC PRIVATE KEY" holding a P-256 key; any
  // other text or curve throws invalidPrivateKey.
  static PhoneApprovalDeviceAssertionSigner fromPEM(std::string_view pem);

  PhoneApprovalDeviceAssertionSigner(PhoneApprovalDeviceAssertionSigner&&) noexcept;
  PhoneApprovalDeviceAssertionSigner& operator=(PhoneApprovalDeviceAssertionSigner&&) noexcept;
  PhoneApprovalDeviceAssertionSigner(const PhoneApprovalDeviceAssertionSigner&) = delete;
  PhoneApprovalDeviceAssertionSigner& operator=(const PhoneApprovalDeviceAssertionSigner&) = delete;
  ~PhoneApprovalDeviceAssertionSigner();

  // The private key as unencrypted PKCS#8 PEM. Secret: secureWipe it after use.
  [[nodiscard]] std::string privateKeyPEM() const;

  // "EC", "P-256", x and y base64url of the 32-byte coordinates.
  [[nodiscard]] PhoneApprovalDevicePublicKeyJWK publicKeyJWK() const;
  // The JWK of any P-256 public key given as its 65-byte uncompressed point
  // (0x04 || X || Y); throws invalidPublicKey for anything else, including a
  // point that is not on the curve.
  static PhoneApprovalDevicePublicKeyJWK publicKeyJWK(const Bytes& uncompressedPoint);

  // "Harborkeeper-Device deviceId=<deviceID>,timestamp=<ts>,signature=<sig>"
  // where sig = base64url of the raw 64-byte r||s ECDSA-SHA256 signature of
  //   upper(method) "\n" path "\n" requestID "\n" rawValue(decision) "\n" ts
  // (the device id is not signed). Randomised: differs between calls.
  // Throws PhoneApprovalDeviceKeyError (cryptoFailure) when signing fails.
  [[nodiscard]] std::string approvalAssertionHeader(std::string_view deviceID, std::string_view requestID,
                                                    PhoneApprovalDeviceDecision decision,
                                                    std::string_view method, std::string_view path,
                                                    Date timestamp) const;

 private:
  struct KeyDeleter {
    void operator()(evp_pkey_st* key) const noexcept;
  };
  explicit PhoneApprovalDeviceAssertionSigner(std::unique_ptr<evp_pkey_st, KeyDeleter> key) noexcept;

  std::unique_ptr<evp_pkey_st, KeyDeleter> key_;
};

}  // namespace harborkeeper
