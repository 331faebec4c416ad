#pragma once

#include <chrono>
#include <string>
#include <string_view>

// Plain words for a failed libcurl transfer, shared by every HTTP client of
// the system. Codes are libcurl's CURLcode values, taken as int so callers
// need not include curl.
namespace harborkeeper {

enum class HttpFailureKind { nameResolution, connection, tlsVerification, timeout, other };

HttpFailureKind httpFailureKind(int curlCode) noexcept;

// "could not resolve host", "could not connect", "the server's certificate
// could not be verified", "timed out after <limit> s" or "the request failed",
// then " (<detail>)" when `curlDetail` (libcurl's error buffer, or its
// curl_easy_strerror text) is not empty.
std::string httpFailureDescription(int curlCode, std::string_view curlDetail, std::chrono::seconds timeLimit);

}  // namespace harborkeeper
