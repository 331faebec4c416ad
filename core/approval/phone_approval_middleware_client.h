#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/approval/phone_approval_device_assertion_signer.h"
#include "core/approval/phone_approval_records.h"
#include "core/foundation/date_time.h"

namespace harborkeeper {

struct PhoneApprovalMiddlewareConfiguration {
  std::string endpointURL;  // the service's base address; no default
  std::string listenerID;
  std::string listenerSecret;
  std::int64_t defaultTTLSeconds = 0;  // life of a request when none is given
  bool operator==(const PhoneApprovalMiddlewareConfiguration&) const = default;
};

// what() is the user-facing text.
class PhoneApprovalMiddlewareError : public std::runtime_error {
 public:
  enum class Kind { unexpectedStatusCode, missingListenerCredentials, invalidEndpoint, invalidResponse };
  // "Phone approval middleware returned HTTP <code>."
  static PhoneApprovalMiddlewareError unexpectedStatusCode(long code);
  // "Phone approval route is not configured."
  static PhoneApprovalMiddlewareError missingListenerCredentials();
  // "Phone approval middleware URL is invalid."
  static PhoneApprovalMiddlewareError invalidEndpoint();
  // "Phone approval middleware returned an invalid response."
  static PhoneApprovalMiddlewareError invalidResponse();
  [[nodiscard]] Kind kind() const { return kind_; }
  [[nodiscard]] long statusCode() const { return statusCode_; }  // 0 unless unexpectedStatusCode

 private:
  PhoneApprovalMiddlewareError(Kind kind, long statusCode, const std::string& message)
      : std::runtime_error(message), kind_(kind), statusCode_(statusCode) {}
  Kind kind_;
  long statusCode_;
};

// One HTTP exchange with the middleware, as handed to a transport.
struct PhoneApprovalHTTPRequest {
  std::string method;                                        // "GET", "POST", "PATCH", "DELETE"
  std::string url;                                           // absolute
  std::vector<std::pair<std::string, std::string>> headers;  // in sending order, names lower case
  std::optional<std::string> body;                           // absent: the request has none
  std::chrono::seconds timeout{60};                          // for the whole exchange
};

struct PhoneApprovalHTTPResponse {
  long statusCode = 0;
  std::string body;
};

// The network seam. Must be safe to call from several threads at once.
// Returns whatever HTTP answer arrives (any status code, redirects not
// followed) and throws for anything that is not one (PhoneApprovalTransportError
// for libcurl, or PhoneApprovalMiddlewareError::invalidResponse).
class PhoneApprovalMiddlewareTransport {
 public:
  virtual ~PhoneApprovalMiddlewareTransport() = default;
  [[nodiscard]] virtual PhoneApprovalHTTPResponse response(const PhoneApprovalHTTPRequest& request) const = 0;
};

// The roles the client plays, so callers can depend on just one (and tests
// can stand in for it). Every operation blocks until the answer is decoded.
class PhoneApprovalSubmitting {
 public:
  virtual ~PhoneApprovalSubmitting() = default;
  // Uses the configuration's defaultTTLSeconds.
  virtual PhoneApprovalMiddlewareRecord createApprovalRequest(const PhoneApprovalRequest& request) const = 0;
};

class PhoneApprovalCoordinating : public PhoneApprovalSubmitting {
 public:
  virtual PhoneApprovalMiddlewareRecord readApprovalRequest(std::string_view requestID) const = 0;
  virtual PhoneApprovalMiddlewareRecord consumeApprovalRequest(std::string_view requestID) const = 0;
};

class PhoneApprovalListenerRegistering {
 public:
  virtual ~PhoneApprovalListenerRegistering() = default;
  virtual PhoneApprovalListenerRegistrationRecord registerListener(std::string_view displayName) const = 0;
};

class PhoneApprovalPairedDeviceManaging {
 public:
  virtual ~PhoneApprovalPairedDeviceManaging() = default;
  virtual std::vector<PhoneApprovalPairedDeviceRecord> listPairedDevices() const = 0;
  virtual PhoneApprovalTestNotificationRecord sendPairedDeviceTestNotification() const = 0;
  virtual PhoneApprovalPairedDeviceRecord renamePairedDevice(std::string_view deviceID,
                                                             std::string_view displayName) const = 0;
  virtual PhoneApprovalPairedDeviceRevocationRecord revokePairedDevice(std::string_view deviceID) const = 0;
};

// The HTTPS client of the phone approval middleware. Holds no mutable state:
// operations may run concurrently from several threads (as far as the
// transport and the timestamp provider allow).
//
// Every call:
//  - URL: the path ("/v1/...") without its leading "/" resolved as a relative
//    reference against endpointURL (so a base ".../api" loses "api", and
//    ".../api/" keeps it); failure -> invalidEndpoint, nothing sent.
//  - signed calls (all but registerListener and submitDeviceDecision): the
//    listener id and secret are trimmed; either empty -> missingListenerCredentials,
//    nothing sent. Headers in order: content-type, accept (both
//    "application/json"), cache-control "no-store", authorization (HMAC over
//    method, path with its "/", now, and the body or "").
//  - registerListener: the same without the credential check and authorization.
//  - a status outside 200-299 -> unexpectedStatusCode(code) (204 passes and
//    then fails to decode); the body then decodes as the record
//    (PhoneApprovalDecodingError when it does not). Transport errors pass
//    through unchanged. Nothing is retried.
// Bodies are the compact, key-sorted JSON of the matching *Body record; the
// test notification sends "{}"; path identifiers are inserted as given.
class PhoneApprovalMiddlewareClient final : public PhoneApprovalCoordinating,
                                            public PhoneApprovalListenerRegistering,
                                            public PhoneApprovalPairedDeviceManaging {
 public:
  using TimestampProvider = std::function<Date()>;

  // `now` defaults to the system clock; it is asked once per signature.
  PhoneApprovalMiddlewareClient(PhoneApprovalMiddlewareConfiguration configuration,
                                std::shared_ptr<const PhoneApprovalMiddlewareTransport> transport,
                                TimestampProvider now = {});

  [[nodiscard]] const PhoneApprovalMiddlewareConfiguration& configuration() const { return configuration_; }

  // POST /v1/approval-requests
  PhoneApprovalMiddlewareRecord createApprovalRequest(const PhoneApprovalRequest& request) const override;
  PhoneApprovalMiddlewareRecord createApprovalRequest(const PhoneApprovalRequest& request,
                                                      std::int64_t ttlSeconds) const;
  // GET /v1/approval-requests/{id}
  PhoneApprovalMiddlewareRecord readApprovalRequest(std::string_view requestID) const override;
  // POST /v1/approval-requests/{id}/consume, no body
  PhoneApprovalMiddlewareRecord consumeApprovalRequest(std::string_view requestID) const override;

  // POST /v1/listeners, unauthenticated. The answer holds the new secret.
  PhoneApprovalListenerRegistrationRecord registerListener(std::string_view displayName) const override;
  // POST /v1/listeners/{listener}/device-pairing-tokens
  PhoneApprovalPairingTokenRecord createPhonePairingToken(std::string_view displayName,
                                                          std::int64_t expiresInSeconds) const;
  // POST /v1/listeners/{listener}/devices
  PhoneApprovalPairedDeviceRecord registerPairedDevice(std::string_view displayName,
                                                       std::string_view apnsToken,
                                                       const PhoneApprovalDevicePublicKeyJWK& jwk) const;
  // GET /v1/listeners/{listener}/devices (the list record's devices)
  std::vector<PhoneApprovalPairedDeviceRecord> listPairedDevices() const override;
  // POST /v1/listeners/{listener}/devices/test-notification, body "{}"
  PhoneApprovalTestNotificationRecord sendPairedDeviceTestNotification() const override;
  // PATCH /v1/listeners/{listener}/devices/{device}
  PhoneApprovalPairedDeviceRecord renamePairedDevice(std::string_view deviceID,
                                                     std::string_view displayName) const override;
  // DELETE /v1/listeners/{listener}/devices/{device}
  PhoneApprovalPairedDeviceRevocationRecord revokePairedDevice(std::string_view deviceID) const override;

  // POST /v1/approval-requests/{id}/approve or .../deny, no body, no listener
  // credentials needed: headers accept, cache-control and
  // "x-harborkeeper-device-assertion" signed by `signer`.
  PhoneApprovalMiddlewareRecord submitDeviceDecision(std::string_view requestID, std::string_view deviceID,
                                                     PhoneApprovalDeviceDecision decision,
                                                     const PhoneApprovalDeviceAssertionSigner& signer) const;

  // The absolute URL for `path` against `endpointURL` as described above.
  // Throws PhoneApprovalMiddlewareError::invalidEndpoint.
  static std::string resolveEndpointURL(std::string_view endpointURL, std::string_view path);

 private:
  struct Exchange;
  [[nodiscard]] std::string send(const Exchange& exchange) const;

  PhoneApprovalMiddlewareConfiguration configuration_;
  std::shared_ptr<const PhoneApprovalMiddlewareTransport> transport_;
  TimestampProvider now_;
};

}  // namespace harborkeeper
