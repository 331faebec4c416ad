#include "core/approval/phone_approval_middleware_client.h"

#include <curl/curl.h>

#include <algorithm>

#include "core/approval/phone_approval_request_signer.h"
#include "core/foundation/bytes.h"
#include "core/foundation/text.h"

namespace harborkeeper {

namespace {

constexpr std::chrono::seconds kRequestTimeout{60};

using Headers = std::vector<std::pair<std::string, std::string>>;

// Characters that may appear somewhere in a URI reference; a path holding
// anything else (a space, say) is no URL, rather than one curl would repair.
bool isURICharacter(char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return std::string_view("-._~!$&'()*+,;=:@/?#%[]").find(c) != std::string_view::npos;
}

Headers jsonHeaders() {
  return {
      {"content-type", "application/json"}, {"accept", "application/json"}, {"cache-control", "no-store"}};
}

// The listener's id and secret, trimmed; the secret's copy is wiped on exit.
struct ListenerCredentials {
  explicit ListenerCredentials(const PhoneApprovalMiddlewareConfiguration& configuration)
      : id(text::trimmed(configuration.listenerID)), secret(text::trimmed(configuration.listenerSecret)) {
    if (id.empty() || secret.empty()) throw PhoneApprovalMiddlewareError::missingListenerCredentials();
  }
  std::string id;
  std::string secret;
  WipeOnExit<std::string> wipeSecret{secret};
};

std::string joined(std::initializer_list<std::string_view> parts) {
  std::string text;
  for (const std::string_view part : parts) text.append(part);
  return text;
}

// "/v1/listeners/{listener}" + rest, for the trimmed listener id; fails
// before anything else when the credentials are missing.
std::string listenerPath(const PhoneApprovalMiddlewareConfiguration& configuration, std::string_view rest) {
  const ListenerCredentials credentials(configuration);
  return joined({"/v1/listeners/", credentials.id, rest});
}

}  // namespace

PhoneApprovalMiddlewareError PhoneApprovalMiddlewareError::unexpectedStatusCode(long code) {
  return {Kind::unexpectedStatusCode, code,
          "Phone approval middleware returned HTTP " + std::to_string(code) + "."};
}

PhoneApprovalMiddlewareError PhoneApprovalMiddlewareError::missingListenerCredentials() {
  return {Kind::missingListenerCredentials, 0, "Phone approval route is not configured."};
}

PhoneApprovalMiddlewareError PhoneApprovalMiddlewareError::invalidEndpoint() {
  return {Kind::invalidEndpoint, 0, "Phone approval middleware URL is invalid."};
}

PhoneApprovalMiddlewareError PhoneApprovalMiddlewareError::invalidResponse() {
  return {Kind::invalidResponse, 0, "Phone approval middleware returned an invalid response."};
}

// What one operation sends; the listener HMAC is added when `signedByListener`.
struct PhoneApprovalMiddlewareClient::Exchange {
  std::string method;
  std::string path;  // with its leading "/", as signed
  std::optional<std::string> body;
  bool signedByListener = true;
  Headers headers = jsonHeaders();  // the authorization is added to these
};

PhoneApprovalMiddlewareClient::PhoneApprovalMiddlewareClient(
    PhoneApprovalMiddlewareConfiguration configuration,
    std::shared_ptr<const PhoneApprovalMiddlewareTransport> transport, TimestampProvider now)
    : configuration_(std::move(configuration)), transport_(std::move(transport)), now_(std::move(now)) {
  if (!now_) now_ = [] { return std::chrono::system_clock::now(); };
}

std::string PhoneApprovalMiddlewareClient::resolveEndpointURL(std::string_view endpointURL,
                                                              std::string_view path) {
  if (path.starts_with('/')) path.remove_prefix(1);
  const std::string base(endpointURL);
  const std::string relative(path);
  const auto isURI = [](std::string_view text) {
    return std::all_of(text.begin(), text.end(), isURICharacter);
  };
  if (!isURI(base) || !isURI(relative)) throw PhoneApprovalMiddlewareError::invalidEndpoint();
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), &curl_url_cleanup);
  char* resolved = nullptr;
  // The second set resolves `relative` against the base the handle holds.
  if (!url || curl_url_set(url.get(), CURLUPART_URL, base.c_str(), 0) != CURLUE_OK ||
      curl_url_set(url.get(), CURLUPART_URL, relative.c_str(), 0) != CURLUE_OK ||
      curl_url_get(url.get(), CURLUPART_URL, &resolved, 0) != CURLUE_OK) {
    throw PhoneApprovalMiddlewareError::invalidEndpoint();
  }
  std::string result(resolved);
  curl_free(resolved);
  return result;
}

std::string PhoneApprovalMiddlewareClient::send(const Exchange& exchange) const {
  // Configuration faults are reported before anything is built or sent.
  std::optional<ListenerCredentials> credentials;
  if (exchange.signedByListener) credentials.emplace(configuration_);
  PhoneApprovalHTTPRequest request;
  request.method = exchange.method;
  request.url = resolveEndpointURL(configuration_.endpointURL, exchange.path);
  request.body = exchange.body;
  request.timeout = kRequestTimeout;
  request.headers = exchange.headers;
  if (credentials) {
    request.headers.emplace_back(
        "authorization", PhoneApprovalRequestSigner::authorizationHeader(
                             credentials->id, credentials->secret, exchange.method, exchange.path, now_(),
                             exchange.body.value_or(std::string())));
  }
  PhoneApprovalHTTPResponse response = transport_->response(request);
  if (response.statusCode < 200 || response.statusCode > 299) {
    throw PhoneApprovalMiddlewareError::unexpectedStatusCode(response.statusCode);
  }
  return std::move(response.body);
}

PhoneApprovalMiddlewareRecord PhoneApprovalMiddlewareClient::createApprovalRequest(
    const PhoneApprovalRequest& request) const {
  return createApprovalRequest(request, configuration_.defaultTTLSeconds);
}

PhoneApprovalMiddlewareRecord PhoneApprovalMiddlewareClient::createApprovalRequest(
    const PhoneApprovalRequest& request, std::int64_t ttlSeconds) const {
  const CreateApprovalRequestBody body{request.profileID, request.macName, request.localHostname, ttlSeconds};
  return decodePhoneApprovalResponse<PhoneApprovalMiddlewareRecord>(
      send({"POST", "/v1/approval-requests", serializePhoneApprovalBody(body)}));
}

PhoneApprovalMiddlewareRecord PhoneApprovalMiddlewareClient::readApprovalRequest(
    std::string_view requestID) const {
  return decodePhoneApprovalResponse<PhoneApprovalMiddlewareRecord>(
      send({"GET", joined({"/v1/approval-requests/", requestID}), std::nullopt}));
}

PhoneApprovalMiddlewareRecord PhoneApprovalMiddlewareClient::consumeApprovalRequest(
    std::string_view requestID) const {
  return decodePhoneApprovalResponse<PhoneApprovalMiddlewareRecord>(
      send({"POST", joined({"/v1/approval-requests/", requestID, "/consume"}), std::nullopt}));
}

PhoneApprovalListenerRegistrationRecord PhoneApprovalMiddlewareClient::registerListener(
    std::string_view displayName) const {
  const RegisterListenerBody body{std::string(displayName)};
  std::string answer =
      send({"POST", "/v1/listeners", serializePhoneApprovalBody(body), /*signedByListener=*/false});
  const WipeOnExit wipeAnswer(answer);  // holds the new listener secret
  return decodePhoneApprovalResponse<PhoneApprovalListenerRegistrationRecord>(answer);
}

PhoneApprovalPairingTokenRecord PhoneApprovalMiddlewareClient::createPhonePairingToken(
    std::string_view displayName, std::int64_t expiresInSeconds) const {
  const CreatePhonePairingTokenBody body{std::string(displayName), expiresInSeconds};
  std::string answer = send(
      {"POST", listenerPath(configuration_, "/device-pairing-tokens"), serializePhoneApprovalBody(body)});
  const WipeOnExit wipeAnswer(answer);  // holds the one-time pairing token
  return decodePhoneApprovalResponse<PhoneApprovalPairingTokenRecord>(answer);
}

PhoneApprovalPairedDeviceRecord PhoneApprovalMiddlewareClient::registerPairedDevice(
    std::string_view displayName, std::string_view apnsToken,
    const PhoneApprovalDevicePublicKeyJWK& jwk) const {
  const RegisterPairedDeviceBody body{std::string(displayName), std::string(apnsToken), jwk};
  return decodePhoneApprovalResponse<PhoneApprovalPairedDeviceRecord>(
      send({"POST", listenerPath(configuration_, "/devices"), serializePhoneApprovalBody(body)}));
}

std::vector<PhoneApprovalPairedDeviceRecord> PhoneApprovalMiddlewareClient::listPairedDevices() const {
  return decodePhoneApprovalResponse<PhoneApprovalPairedDeviceListRecord>(
             send({"GET", listenerPath(configuration_, "/devices"), std::nullopt}))
      .devices;
}

PhoneApprovalTestNotificationRecord PhoneApprovalMiddlewareClient::sendPairedDeviceTestNotification() const {
  return decodePhoneApprovalResponse<PhoneApprovalTestNotificationRecord>(
      send({"POST", listenerPath(configuration_, "/devices/test-notification"), "{}"}));
}

PhoneApprovalPairedDeviceRecord PhoneApprovalMiddlewareClient::renamePairedDevice(
    std::string_view deviceID, std::string_view displayName) const {
  const UpdatePairedDeviceBody body{std::string(displayName)};
  return decodePhoneApprovalResponse<PhoneApprovalPairedDeviceRecord>(
      send({"PATCH", listenerPath(configuration_, joined({"/devices/", deviceID})),
            serializePhoneApprovalBody(body)}));
}

PhoneApprovalPairedDeviceRevocationRecord PhoneApprovalMiddlewareClient::revokePairedDevice(
    std::string_view deviceID) const {
  return decodePhoneApprovalResponse<PhoneApprovalPairedDeviceRevocationRecord>(
      send({"DELETE", listenerPath(configuration_, joined({"/devices/", deviceID})), std::nullopt}));
}

PhoneApprovalMiddlewareRecord PhoneApprovalMiddlewareClient::submitDeviceDecision(
    std::string_view requestID, std::string_view deviceID, PhoneApprovalDeviceDecision decision,
    const PhoneApprovalDeviceAssertionSigner& signer) const {
  const std::string_view action = decision == PhoneApprovalDeviceDecision::approved ? "approve" : "deny";
  Exchange exchange{"POST",
                    joined({"/v1/approval-requests/", requestID, "/", action}),
                    std::nullopt,
                    /*signedByListener=*/false,
                    {}};
  exchange.headers = {
      {"accept", "application/json"},
      {"cache-control", "no-store"},
      {"x-harborkeeper-device-assertion",
       signer.approvalAssertionHeader(deviceID, requestID, decision, exchange.method, exchange.path, now_())},
  };
  return decodePhoneApprovalResponse<PhoneApprovalMiddlewareRecord>(send(exchange));
}

}  // namespace harborkeeper
