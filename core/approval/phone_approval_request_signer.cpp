#include "core/approval/phone_approval_request_signer.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>
#include <stdexcept>

#include "core/approval/internal/phone_approval_signing_text.h"
#include "core/foundation/base64.h"
#include "core/foundation/bytes.h"

namespace harborkeeper {

namespace {

std::string_view asText(const unsigned char* data, unsigned int length) {
  return {reinterpret_cast<const char*>(data), length};
}

}  // namespace

std::string PhoneApprovalRequestSigner::timestampText(Date date) {
  return std::to_string(date_time::secondsSince1970(date));
}

std::string PhoneApprovalRequestSigner::bodyHash(std::string_view body) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (EVP_Digest(body.data(), body.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("SHA-256 is not available.");
  }
  return base64::encodeUrl(asText(digest.data(), length));
}

std::string PhoneApprovalRequestSigner::authorizationHeader(std::string_view listenerID,
                                                            std::string_view listenerSecret,
                                                            std::string_view method, std::string_view path,
                                                            Date timestamp, std::string_view body) {
  const std::string ts = timestampText(timestamp);
  const std::string canonical =
      internal::joinLines({internal::upperASCII(method), std::string(path), ts, bodyHash(body)});
  std::array<unsigned char, EVP_MAX_MD_SIZE> mac{};
  unsigned int length = 0;
  // OpenSSL refuses a null key pointer even for an empty key.
  const char* key = listenerSecret.empty() ? "" : listenerSecret.data();
  if (HMAC(EVP_sha256(), key, static_cast<int>(listenerSecret.size()),
           reinterpret_cast<const unsigned char*>(canonical.data()), canonical.size(), mac.data(),
           &length) == nullptr) {
    throw std::runtime_error("HMAC-SHA256 is not available.");
  }
  std::string header = "Harborkeeper-HMAC listenerId=";
  header.append(listenerID).append(",timestamp=").append(ts).append(",signature=");
  header += base64::encodeUrl(asText(mac.data(), length));
  OPENSSL_cleanse(mac.data(), mac.size());
  return header;
}

}  // namespace harborkeeper
