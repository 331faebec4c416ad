#include "core/platform/http_failure_description.h"

#include <curl/curl.h>

namespace harborkeeper {

HttpFailureKind httpFailureKind(int curlCode) noexcept {
  switch (static_cast<CURLcode>(curlCode)) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return HttpFailureKind::nameResolution;
    case CURLE_COULDNT_CONNECT:
      return HttpFailureKind::connection;
    case CURLE_PEER_FAILED_VERIFICATION:
      return HttpFailureKind::tlsVerification;
    case CURLE_OPERATION_TIMEDOUT:
      return HttpFailureKind::timeout;
    default:
      return HttpFailureKind::other;
  }
}

std::string httpFailureDescription(int curlCode, std::string_view curlDetail,
                                   std::chrono::seconds timeLimit) {
  std::string description;
  switch (httpFailureKind(curlCode)) {
    case HttpFailureKind::nameResolution:
      description = "could not resolve host";
      break;
    case HttpFailureKind::connection:
      description = "could not connect";
      break;
    case HttpFailureKind::tlsVerification:
      description = "the server's certificate could not be verified";
      break;
    case HttpFailureKind::timeout:
      description = "timed out after " + std::to_string(timeLimit.count()) + " s";
      break;
    case HttpFailureKind::other:
      description = "the request failed";
      break;
  }
  if (!curlDetail.empty()) description.append(" (").append(curlDetail).append(")");
  return description;
}

}  // namespace harborkeeper
