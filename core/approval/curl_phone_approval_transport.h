#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

#include "core/platform/http_failure_description.h"
#include "core/approval/phone_approval_middleware_client.h"

namespace harborkeeper {

// A middleware request that got no HTTP answer. what():
// "Phone approval middleware could not be reached: <httpFailureDescription>."
class PhoneApprovalTransportError : public std::runtime_error {
 public:
  PhoneApprovalTransportError(HttpFailureKind kind, const std::string& message)
      : std::runtime_error(message), kind_(kind) {}
  [[nodiscard]] HttpFailureKind kind() const { return kind_; }

 private:
  HttpFailureKind kind_;
};

struct CurlPhoneApprovalTransportOptions {
  // A PEM bundle trusted in addition to the system CA store (a self-hosted
  // middleware with a private CA); empty: the system store only.
  std::string extraCABundlePath;
};

// The libcurl transport: http and https only, certificate and host name
// verification always on, redirects not followed, the request's timeout as
// the limit for the whole exchange, no signals. Bodies longer than
// kPhoneApprovalMaxResponseBytes are cut at one byte over that limit, so the
// decoder reports them as too large. One easy handle per call: safe from
// several threads.
class CurlPhoneApprovalTransport final : public PhoneApprovalMiddlewareTransport {
 public:
  explicit CurlPhoneApprovalTransport(CurlPhoneApprovalTransportOptions options = {});

  // Throws PhoneApprovalTransportError.
  [[nodiscard]] PhoneApprovalHTTPResponse response(const PhoneApprovalHTTPRequest& request) const override;

 private:
  CurlPhoneApprovalTransportOptions options_;
};

}  // namespace harborkeeper
