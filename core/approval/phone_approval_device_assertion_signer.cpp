#include "core/approval/phone_approval_device_assertion_signer.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>

#include <array>
#include <cstring>

#include "core/approval/internal/phone_approval_signing_text.h"
#include "core/approval/phone_approval_request_signer.h"
#include "core/foundation/base64.h"

namespace harborkeeper {

namespace {

constexpr std::size_t kCoordinateBytes = 32;
constexpr std::size_t kPointBytes = 1 + 2 * kCoordinateBytes;
constexpr char kGroupName[] = "prime256v1";
// A P-256 key in PEM is a few hundred bytes; anything near int's range is not one.
constexpr std::size_t kMaxPEMBytes = std::size_t{64} * 1024;

template <typename T, void (*Free)(T*)>
struct Freer {
  void operator()(T* pointer) const noexcept { Free(pointer); }
};
using Bio = std::unique_ptr<BIO, Freer<BIO, BIO_free_all>>;
using BigNumber = std::unique_ptr<BIGNUM, Freer<BIGNUM, BN_clear_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, Freer<EVP_MD_CTX, EVP_MD_CTX_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Freer<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using Signature = std::unique_ptr<ECDSA_SIG, Freer<ECDSA_SIG, ECDSA_SIG_free>>;
using ParamBuilder = std::unique_ptr<OSSL_PARAM_BLD, Freer<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>>;
using Params = std::unique_ptr<OSSL_PARAM, Freer<OSSL_PARAM, OSSL_PARAM_free>>;

// Never prompt on a terminal for an encrypted key's pass phrase.
int refusePassphrase(char*, int, int, void*) { return 0; }

bool isP256(const EVP_PKEY* key) {
  std::array<char, 64> group{};
  std::size_t length = 0;
  return EVP_PKEY_is_a(key, "EC") == 1 &&
         EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, group.data(), group.size(),
                                        &length) == 1 &&
         std::strcmp(group.data(), kGroupName) == 0;
}

std::string coordinate(const EVP_PKEY* key, const char* name) {
  BIGNUM* raw = nullptr;
  if (EVP_PKEY_get_bn_param(key, name, &raw) != 1) {
    throw PhoneApprovalDeviceKeyError::cryptoFailure("reading the public key");
  }
  const BigNumber value(raw);
  std::array<unsigned char, kCoordinateBytes> bytes{};
  if (BN_bn2binpad(value.get(), bytes.data(), bytes.size()) != static_cast<int>(bytes.size())) {
    throw PhoneApprovalDeviceKeyError::cryptoFailure("reading the public key");
  }
  return base64::encodeUrl(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

// A P-256 public key from its uncompressed point; null when the bytes are
// not a point on the curve.
EVP_PKEY* publicKeyFromPoint(const Bytes& point) {
  if (point.size() != kPointBytes || point.front() != 0x04) return nullptr;
  const ParamBuilder builder(OSSL_PARAM_BLD_new());
  if (!builder ||
      OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, kGroupName, 0) != 1 ||
      OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(), point.size()) !=
          1) {
    return nullptr;
  }
  const Params params(OSSL_PARAM_BLD_to_param(builder.get()));
  const KeyContext context(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
  EVP_PKEY* key = nullptr;
  if (!params || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
      EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
    return nullptr;
  }
  return key;
}

// ECDSA signatures come as DER; the wire wants r and s as 32 bytes each.
std::string rawSignature(const unsigned char* der, std::size_t length) {
  const unsigned char* cursor = der;
  const Signature signature(d2i_ECDSA_SIG(nullptr, &cursor, static_cast<long>(length)));
  if (!signature) throw PhoneApprovalDeviceKeyError::cryptoFailure("reading the signature");
  std::array<unsigned char, 2 * kCoordinateBytes> raw{};
  if (BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), raw.data(), kCoordinateBytes) != kCoordinateBytes ||
      BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), raw.data() + kCoordinateBytes, kCoordinateBytes) !=
          kCoordinateBytes) {
    throw PhoneApprovalDeviceKeyError::cryptoFailure("reading the signature");
  }
  return base64::encodeUrl(std::string_view(reinterpret_cast<const char*>(raw.data()), raw.size()));
}

}  // namespace

PhoneApprovalDeviceKeyError PhoneApprovalDeviceKeyError::invalidPrivateKey() {
  return {Kind::invalidPrivateKey, "The device key is not a P-256 private key in PEM form."};
}

PhoneApprovalDeviceKeyError PhoneApprovalDeviceKeyError::invalidPublicKey() {
  return {Kind::invalidPublicKey, "The device public key is not an uncompressed P-256 point."};
}

PhoneApprovalDeviceKeyError PhoneApprovalDeviceKeyError::cryptoFailure(std::string_view step) {
  return {Kind::cryptoFailure, "Device key operation failed: " + std::string(step) + "."};
}

void PhoneApprovalDeviceAssertionSigner::KeyDeleter::operator()(evp_pkey_st* key) const noexcept {
  EVP_PKEY_free(key);  // clears the private scalar
}

PhoneApprovalDeviceAssertionSigner::PhoneApprovalDeviceAssertionSigner(
    std::unique_ptr<evp_pkey_st, KeyDeleter> key) noexcept
    : key_(std::move(key)) {}

PhoneApprovalDeviceAssertionSigner::PhoneApprovalDeviceAssertionSigner(
    PhoneApprovalDeviceAssertionSigner&&) noexcept = default;
PhoneApprovalDeviceAssertionSigner& PhoneApprovalDeviceAssertionSigner::operator=(
    PhoneApprovalDeviceAssertionSigner&&) noexcept = default;
PhoneApprovalDeviceAssertionSigner::~PhoneApprovalDeviceAssertionSigner() = default;

PhoneApprovalDeviceAssertionSigner PhoneApprovalDeviceAssertionSigner::generate() {
  std::unique_ptr<evp_pkey_st, KeyDeleter> key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", kGroupName));
  if (!key) throw PhoneApprovalDeviceKeyError::cryptoFailure("generating a key");
  return PhoneApprovalDeviceAssertionSigner(std::move(key));
}

PhoneApprovalDeviceAssertionSigner PhoneApprovalDeviceAssertionSigner::fromPEM(std::string_view pem) {
  if (pem.size() > kMaxPEMBytes) throw PhoneApprovalDeviceKeyError::invalidPrivateKey();
  const Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  if (!bio) throw PhoneApprovalDeviceKeyError::cryptoFailure("reading the key");
  std::unique_ptr<evp_pkey_st, KeyDeleter> key(
      PEM_read_bio_PrivateKey(bio.get(), nullptr, refusePassphrase, nullptr));
  if (!key || !isP256(key.get())) throw PhoneApprovalDeviceKeyError::invalidPrivateKey();
  return PhoneApprovalDeviceAssertionSigner(std::move(key));
}

std::string PhoneApprovalDeviceAssertionSigner::privateKeyPEM() const {
  // A memory BIO clears its buffer when freed.
  const Bio bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_PrivateKey(bio.get(), key_.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    throw PhoneApprovalDeviceKeyError::cryptoFailure("writing the key");
  }
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(length));
}

PhoneApprovalDevicePublicKeyJWK PhoneApprovalDeviceAssertionSigner::publicKeyJWK() const {
  PhoneApprovalDevicePublicKeyJWK jwk;
  jwk.x = coordinate(key_.get(), OSSL_PKEY_PARAM_EC_PUB_X);
  jwk.y = coordinate(key_.get(), OSSL_PKEY_PARAM_EC_PUB_Y);
  return jwk;
}

PhoneApprovalDevicePublicKeyJWK PhoneApprovalDeviceAssertionSigner::publicKeyJWK(
    const Bytes& uncompressedPoint) {
  const std::unique_ptr<evp_pkey_st, KeyDeleter> key(publicKeyFromPoint(uncompressedPoint));
  if (!key) throw PhoneApprovalDeviceKeyError::invalidPublicKey();
  PhoneApprovalDevicePublicKeyJWK jwk;
  const auto* bytes = reinterpret_cast<const char*>(uncompressedPoint.data());
  jwk.x = base64::encodeUrl(std::string_view(bytes + 1, kCoordinateBytes));
  jwk.y = base64::encodeUrl(std::string_view(bytes + 1 + kCoordinateBytes, kCoordinateBytes));
  return jwk;
}

std::string PhoneApprovalDeviceAssertionSigner::approvalAssertionHeader(
    std::string_view deviceID, std::string_view requestID, PhoneApprovalDeviceDecision decision,
    std::string_view method, std::string_view path, Date timestamp) const {
  const std::string ts = PhoneApprovalRequestSigner::timestampText(timestamp);
  const std::string canonical =
      internal::joinLines({internal::upperASCII(method), path, requestID, rawValue(decision), ts});
  const DigestContext context(EVP_MD_CTX_new());
  std::array<unsigned char, 80> der{};  // a P-256 DER signature is at most 72 bytes
  std::size_t length = der.size();
  if (!context || EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key_.get()) != 1 ||
      EVP_DigestSign(context.get(), der.data(), &length,
                     reinterpret_cast<const unsigned char*>(canonical.data()), canonical.size()) != 1) {
    throw PhoneApprovalDeviceKeyError::cryptoFailure("signing");
  }
  std::string header = "Harborkeeper-Device deviceId=";
  header.append(deviceID).append(",timestamp=").append(ts).append(",signature=");
  header += rawSignature(der.data(), length);
  return header;
}

}  // namespace harborkeeper
