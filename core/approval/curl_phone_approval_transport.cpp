#include "core/approval/curl_phone_approval_transport.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <memory>

#include "core/approval/phone_approval_records.h"

namespace harborkeeper {

namespace {

// One byte over the decoder's limit is enough for it to refuse the body.
constexpr std::size_t kBodyCap = kPhoneApprovalMaxResponseBytes + 1;

using Easy = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
using HeaderList = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

struct BodySink {
  std::string body;
  bool cut = false;
};

std::size_t collect(char* data, std::size_t size, std::size_t count, void* context) {
  auto& sink = *static_cast<BodySink*>(context);
  const std::size_t length = size * count;
  const std::size_t room = kBodyCap - sink.body.size();
  if (length > room) {
    sink.body.append(data, room);
    sink.cut = true;
    return 0;  // stops the transfer: the rest would only be thrown away
  }
  sink.body.append(data, length);
  return length;
}

void initializeCurl() {
  static const CURLcode initialized = curl_global_init(CURL_GLOBAL_DEFAULT);
  (void)initialized;  // a failure shows up as curl_easy_init failing
}

[[noreturn]] void fail(HttpFailureKind kind, const std::string& description) {
  throw PhoneApprovalTransportError(kind,
                                    "Phone approval middleware could not be reached: " + description + ".");
}

bool hasLineBreak(std::string_view text) { return text.find_first_of("\r\n", 0) != std::string_view::npos; }

bool hasHeader(const PhoneApprovalHTTPRequest& request, std::string_view lowerCaseName) {
  for (const auto& [name, value] : request.headers) {
    if (name.size() == lowerCaseName.size() &&
        std::equal(name.begin(), name.end(), lowerCaseName.begin(),
                   [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; })) {
      return true;
    }
  }
  return false;
}

HeaderList headerList(const PhoneApprovalHTTPRequest& request) {
  HeaderList list(nullptr, &curl_slist_free_all);
  const auto add = [&list](const std::string& line) {
    curl_slist* grown = curl_slist_append(list.get(), line.c_str());
    if (grown == nullptr) throw std::bad_alloc();
    (void)list.release();
    list.reset(grown);
  };
  for (const auto& [name, value] : request.headers) {
    if (hasLineBreak(name) || hasLineBreak(value) || name.find('\0') != std::string::npos ||
        value.find('\0') != std::string::npos) {
      fail(HttpFailureKind::other, "the request failed (a header holds a line break)");
    }
    std::string line = name;
    line.append(": ").append(value);
    add(line);
  }
  // libcurl would otherwise add a form content type to a bodiless POST and
  // wait for "100 Continue" before a larger body.
  if (!hasHeader(request, "content-type")) add("Content-Type:");
  add("Expect:");
  return list;
}

void setMethodAndBody(CURL* easy, const PhoneApprovalHTTPRequest& request) {
  if (request.body || request.method == "POST") {
    const std::string& body = request.body ? *request.body : std::string();
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(easy, CURLOPT_COPYPOSTFIELDS, body.c_str());
  } else {
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  }
  if (request.method != "POST" && request.method != "GET") {
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }
}

}  // namespace

CurlPhoneApprovalTransport::CurlPhoneApprovalTransport(CurlPhoneApprovalTransportOptions options)
    : options_(std::move(options)) {
  initializeCurl();
}

PhoneApprovalHTTPResponse CurlPhoneApprovalTransport::response(
    const PhoneApprovalHTTPRequest& request) const {
  const Easy easy(curl_easy_init(), &curl_easy_cleanup);
  if (!easy) fail(HttpFailureKind::other, "the request failed (libcurl could not start)");
  CURL* handle = easy.get();
  const HeaderList headers = headerList(request);
  BodySink sink;
  std::array<char, CURL_ERROR_SIZE> detail{};
  // Zero would mean no limit at all to libcurl.
  const auto limit = std::max(request.timeout, std::chrono::seconds{1});
  const long timeoutMilliseconds = static_cast<long>(limit.count()) * 1000L;

  curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, timeoutMilliseconds);
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
  // The bundle file replaces libcurl's default file; the system store
  // stays trusted through the default CA directory, which is left in place.
  if (!options_.extraCABundlePath.empty()) {
    curl_easy_setopt(handle, CURLOPT_CAINFO, options_.extraCABundlePath.c_str());
  }
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &collect);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &sink);
  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, detail.data());
  setMethodAndBody(handle, request);

  const CURLcode result = curl_easy_perform(handle);
  if (result != CURLE_OK && !(result == CURLE_WRITE_ERROR && sink.cut)) {
    const std::string_view text = detail[0] != '\0' ? detail.data() : curl_easy_strerror(result);
    fail(httpFailureKind(result), httpFailureDescription(result, text, request.timeout));
  }
  long status = 0;
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  if (status < 100) throw PhoneApprovalMiddlewareError::invalidResponse();
  return {status, std::move(sink.body)};
}

}  // namespace harborkeeper
