#include "core/heartbeat/docker_heartbeat_request.h"

#include <curl/curl.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>
#include <memory>

#include "core/foundation/base64.h"
#include "core/foundation/bytes.h"
#include "core/foundation/json.h"
#include "core/platform/boot_time.h"
#include "core/protection/helper_constants.h"

namespace harborkeeper::DockerHeartbeat {

namespace {

// The endpoint as libcurl will send it; anything it cannot send is refused
// before a beat is built.
std::string usableURL(const std::string& endpointURL) {
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), &curl_url_cleanup);
  char* normalized = nullptr;
  if (!url || curl_url_set(url.get(), CURLUPART_URL, endpointURL.c_str(), 0) != CURLUE_OK ||
      curl_url_get(url.get(), CURLUPART_URL, &normalized, 0) != CURLUE_OK) {
    throw DockerHeartbeatConfigurationStoreError::invalidConfiguration("Use a valid heartbeat URL.");
  }
  std::string result(normalized);
  curl_free(normalized);
  return result;
}

}  // namespace

std::string heartbeatSignature(std::string_view secret, std::string_view timestamp, std::string_view body) {
  std::string message;
  message.reserve(timestamp.size() + 1 + body.size());
  message.append(timestamp).append(".").append(body);
  std::array<unsigned char, EVP_MAX_MD_SIZE> mac{};
  unsigned int length = 0;
  // A null key pointer is refused even with length 0.
  const char* key = secret.empty() ? "" : secret.data();
  const unsigned char* done =
      HMAC(EVP_sha256(), key, static_cast<int>(secret.size()),
           reinterpret_cast<const unsigned char*>(message.data()), message.size(), mac.data(), &length);
  if (done == nullptr) {
    secureWipe(message);
    throw std::runtime_error("HMAC-SHA256 is not available.");
  }
  std::string signature =
      base64::encodeUrl(std::string_view(reinterpret_cast<const char*>(mac.data()), length));
  secureWipe(message);
  return signature;
}

std::string heartbeatBody(const DockerHeartbeatConfiguration& configuration, const Clock& clock,
                          std::string_view hostName) {
  const json::Json payload{
      {"bootIdentifier", std::to_string(date_time::secondsSince1970(BootTime::currentBootDate(clock)))},
      {"helperVersion", HelperConstants::helperVersion()},
      {"hostName", std::string(hostName)},
      {"profileId", configuration.profileID},
  };
  return json::serialize(payload);
}

DockerHeartbeatHttpRequest heartbeatRequest(const DockerHeartbeatConfiguration& configuration,
                                            const Clock& clock, std::string_view hostName) {
  DockerHeartbeatHttpRequest request;
  request.method = "POST";
  request.url = usableURL(configuration.endpointURL);
  request.body = heartbeatBody(configuration, clock, hostName);
  const std::string timestamp = std::to_string(date_time::secondsSince1970(clock.now()));
  request.headers = {
      {"Content-Type", "application/json"},
      {std::string(timestampHeader), timestamp},
      {std::string(signatureHeader), heartbeatSignature(configuration.sharedSecret, timestamp, request.body)},
  };
  request.timeout = requestTimeout;
  return request;
}

}  // namespace harborkeeper::DockerHeartbeat
