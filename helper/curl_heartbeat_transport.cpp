#include "helper/curl_heartbeat_transport.h"

#include <curl/curl.h>

#include <array>
#include <map>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "core/platform/http_failure_description.h"
#include "core/platform/mutex.h"

namespace harborkeeper {

namespace {

constexpr int kIdlePollMilliseconds = 1000;

void initializeCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
      throw std::runtime_error("libcurl could not start.");
    }
  });
}

// The response body is of no interest; only its status is.
std::size_t discardBody(char* /*data*/, std::size_t size, std::size_t count, void* /*context*/) {
  return size * count;
}

// One beat in flight. Owns everything curl points into until it is done.
struct Transfer {
  DockerHeartbeatHttpRequest request;
  DockerHeartbeatTransport::Completion completion;
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy{curl_easy_init(), &curl_easy_cleanup};
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers{nullptr, &curl_slist_free_all};
  std::array<char, CURL_ERROR_SIZE> errorText{};

  Transfer(DockerHeartbeatHttpRequest r, DockerHeartbeatTransport::Completion c)
      : request(std::move(r)), completion(std::move(c)) {
    if (!easy) throw std::runtime_error("libcurl could not create a transfer.");
    for (const auto& [name, value] : request.headers) {
      std::string line = name;
      line.append(": ").append(value);
      curl_slist* extended = curl_slist_append(headers.get(), line.c_str());
      if (extended == nullptr) throw std::runtime_error("libcurl could not add a header.");
      (void)headers.release();
      headers.reset(extended);
    }
    CURL* handle = easy.get();
    curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request.body.data());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS,
                     static_cast<long>(std::chrono::milliseconds(request.timeout).count()));
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &discardBody);
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorText.data());
  }

  [[nodiscard]] DockerHeartbeatOutcome outcome(CURLcode result) const {
    if (result != CURLE_OK) {
      const std::string detail = errorText[0] != '\0' ? errorText.data() : curl_easy_strerror(result);
      return {DockerHeartbeatOutcome::Kind::transportFailed,
              httpFailureDescription(result, detail,
                                     std::chrono::duration_cast<std::chrono::seconds>(request.timeout)),
              0};
    }
    long status = 0;
    curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
    if (status == 0) return {DockerHeartbeatOutcome::Kind::notHttp, {}, 0};
    return {DockerHeartbeatOutcome::Kind::httpStatus, {}, status};
  }
};

class CurlHeartbeatTransport final : public DockerHeartbeatTransport {
 public:
  CurlHeartbeatTransport() {
    initializeCurlOnce();
    multi_ = curl_multi_init();
    if (multi_ == nullptr) throw std::runtime_error("libcurl could not start a transfer set.");
    worker_ = std::thread([this] { run(); });
  }

  ~CurlHeartbeatTransport() override {
    {
      const MutexLock lock(mutex_);
      stopping_ = true;
    }
    curl_multi_wakeup(multi_);
    worker_.join();
    for (auto& [handle, transfer] : active_) curl_multi_remove_handle(multi_, handle);
    active_.clear();
    curl_multi_cleanup(multi_);
  }

  CurlHeartbeatTransport(const CurlHeartbeatTransport&) = delete;
  CurlHeartbeatTransport& operator=(const CurlHeartbeatTransport&) = delete;

  void send(DockerHeartbeatHttpRequest request, Completion completion) override {
    auto transfer = std::make_unique<Transfer>(std::move(request), std::move(completion));
    {
      const MutexLock lock(mutex_);
      incoming_.push_back(std::move(transfer));
    }
    curl_multi_wakeup(multi_);
  }

 private:
  // Returns false once the transport is stopping.
  bool admitIncoming() {
    std::vector<std::unique_ptr<Transfer>> arrived;
    {
      const MutexLock lock(mutex_);
      if (stopping_) return false;
      arrived.swap(incoming_);
    }
    for (auto& transfer : arrived) {
      CURL* handle = transfer->easy.get();
      if (curl_multi_add_handle(multi_, handle) != CURLM_OK) {
        transfer->completion(
            {DockerHeartbeatOutcome::Kind::transportFailed, "libcurl could not start the transfer.", 0});
        continue;
      }
      active_.emplace(handle, std::move(transfer));
    }
    return true;
  }

  void completeFinished() {
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
      if (message->msg != CURLMSG_DONE) continue;
      const auto found = active_.find(message->easy_handle);
      if (found == active_.end()) continue;
      std::unique_ptr<Transfer> transfer = std::move(found->second);
      active_.erase(found);
      curl_multi_remove_handle(multi_, transfer->easy.get());
      transfer->completion(transfer->outcome(message->data.result));
    }
  }

  void run() {
    while (admitIncoming()) {
      int running = 0;
      curl_multi_perform(multi_, &running);
      completeFinished();
      curl_multi_poll(multi_, nullptr, 0, kIdlePollMilliseconds, nullptr);
    }
  }

  CURLM* multi_ = nullptr;
  Mutex mutex_;
  std::vector<std::unique_ptr<Transfer>> incoming_ HK_GUARDED_BY(mutex_);
  bool stopping_ HK_GUARDED_BY(mutex_) = false;
  std::map<CURL*, std::unique_ptr<Transfer>> active_;  // worker thread only (and the destructor after it)
  std::thread worker_;
};

}  // namespace

std::unique_ptr<DockerHeartbeatTransport> makeCurlHeartbeatTransport() {
  return std::make_unique<CurlHeartbeatTransport>();
}

}  // namespace harborkeeper
