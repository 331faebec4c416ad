// How closely the heartbeat manager keeps its beat: 50 beats at a 1 s
// interval through the real manager (steady timer, serial queue, libcurl on
// its worker) to an HTTP receiver on loopback, against a bare loop that sleeps
// until the same absolute deadlines and posts the same request with libcurl.
// Prints the mean and worst deviation of arrivals from their due times, the
// drift from first to last beat, and the CPU time the manager spends per beat.
//
//   build/<dir>/bin/heartbeat_timing_bench [beats]
#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/heartbeat/docker_heartbeat_request.h"
#include "core/platform/unique_fd.h"
#include "helper/docker_heartbeat_manager.h"

namespace {

namespace fs = std::filesystem;
using namespace harborkeeper;
using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

class QuietLogger final : public Logger {
 public:
  void log(LogLevel, std::string_view message) noexcept override { std::cerr << message << '\n'; }
};

double cpuSeconds(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

// Answers every POST with 204 and notes when each one had fully arrived.
class Receiver final {
 public:
  Receiver() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_.get(), 16) != 0 ||
        ::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error("receiver: cannot listen on loopback");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~Receiver() {
    stop_ = true;
    thread_.join();
  }
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  [[nodiscard]] int port() const { return port_; }
  [[nodiscard]] std::vector<SteadyClock::time_point> arrivals() {
    const std::lock_guard lock(mutex_);
    return arrivals_;
  }
  void clear() {
    const std::lock_guard lock(mutex_);
    arrivals_.clear();
  }
  // CPU time this thread has used, so it can be kept out of the manager's share.
  [[nodiscard]] double cpuSeconds() const {
    clockid_t clock{};
    pthread_getcpuclockid(const_cast<std::thread&>(thread_).native_handle(), &clock);
    return ::cpuSeconds(clock);
  }

 private:
  void serve() {
    std::vector<pollfd> fds{{listener_.get(), POLLIN, 0}};
    std::vector<std::string> buffers{""};
    while (!stop_) {
      if (::poll(fds.data(), fds.size(), 100) <= 0) continue;
      if ((fds[0].revents & POLLIN) != 0) {
        const int client = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (client >= 0) {
          fds.push_back({client, POLLIN, 0});
          buffers.emplace_back();
        }
      }
      for (std::size_t i = 1; i < fds.size(); ++i) {
        if ((fds[i].revents & (POLLIN | POLLHUP)) == 0) continue;
        char chunk[4096];
        const ssize_t got = ::recv(fds[i].fd, chunk, sizeof chunk, 0);
        if (got <= 0) {
          ::close(fds[i].fd);
          fds.erase(fds.begin() + long(i));
          buffers.erase(buffers.begin() + long(i));
          --i;
          continue;
        }
        buffers[i].append(chunk, std::size_t(got));
        answerComplete(fds[i].fd, buffers[i]);
      }
    }
    for (std::size_t i = 1; i < fds.size(); ++i) ::close(fds[i].fd);
  }

  void answerComplete(int fd, std::string& buffer) {
    for (;;) {
      const std::size_t end = buffer.find("\r\n\r\n");
      if (end == std::string::npos) return;
      std::size_t bodyLength = 0;
      const std::size_t field = buffer.find("Content-Length: ");
      if (field != std::string::npos && field < end) bodyLength = std::stoul(buffer.substr(field + 16));
      if (buffer.size() < end + 4 + bodyLength) return;
      {
        const std::lock_guard lock(mutex_);
        arrivals_.push_back(SteadyClock::now());
      }
      buffer.erase(0, end + 4 + bodyLength);
      const std::string reply = "HTTP/1.1 204 No Content\r\nContent-Length: 0\r\n\r\n";
      (void)::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
    }
  }

  UniqueFd listener_;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::vector<SteadyClock::time_point> arrivals_;
  std::thread thread_;
};

struct Timing {
  double meanMs = 0, worstMs = 0, driftMs = 0;
};

// Beat n is due n - 1 intervals after the first tick's beat arrived. Beat 0,
// sent at start before the timer's first deadline, opens the connection and
// is no measure of the timer.
Timing timingOf(const std::vector<SteadyClock::time_point>& arrivals, std::chrono::nanoseconds interval) {
  Timing timing;
  std::vector<double> deviations;
  for (std::size_t n = 2; n < arrivals.size(); ++n) {
    const auto due = arrivals[1] + long(n - 1) * interval;
    deviations.push_back(std::chrono::duration<double, std::milli>(arrivals[n] - due).count());
  }
  for (const double d : deviations) {
    timing.meanMs += std::abs(d) / double(deviations.size());
    timing.worstMs = std::max(timing.worstMs, std::abs(d));
  }
  timing.driftMs = deviations.back() - deviations.front();
  return timing;
}

DockerHeartbeatConfiguration configurationFor(int port) {
  return {"http://127.0.0.1:" + std::to_string(port) + "/heartbeat", "bench",
          "a shared secret of 32 characters", 1};
}

void awaitArrivals(Receiver& receiver, std::size_t count, std::chrono::seconds limit) {
  const auto deadline = SteadyClock::now() + limit;
  while (receiver.arrivals().size() < count && SteadyClock::now() < deadline)
    std::this_thread::sleep_for(5ms);
  if (receiver.arrivals().size() < count) throw std::runtime_error("beats did not arrive");
}

// The manager as the daemon runs it, but with a 1 s floor instead of 30 s.
Timing managerRun(Receiver& receiver, int beats, double& cpuPerBeatMs) {
  const fs::path state = fs::temp_directory_path() / ("heartbeat-bench-" + std::to_string(::getpid()));
  fs::remove_all(state);
  QuietLogger logger;
  auto dependencies = DockerHeartbeatManagerDependencies::system(state, ::geteuid());
  dependencies.intervalBounds = {1, 600};
  dependencies.store.store(configurationFor(receiver.port()));
  // This thread only waits and polls; its time is not the manager's either.
  const double processBefore = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID), receiverBefore = receiver.cpuSeconds(),
               waiterBefore = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
  {
    DockerHeartbeatManager manager(std::move(dependencies), logger);
    manager.start();
    awaitArrivals(receiver, std::size_t(beats) + 1, std::chrono::seconds(beats + 10));
  }
  const double managerCpu = (cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - processBefore) -
                            (receiver.cpuSeconds() - receiverBefore) -
                            (cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - waiterBefore);
  cpuPerBeatMs = managerCpu * 1000 / (beats + 1);
  fs::remove_all(state);
  return timingOf(receiver.arrivals(), 1s);
}

// The same requests from a bare loop: sleep until the absolute deadline, post.
Timing bareLoopRun(Receiver& receiver, int beats) {
  const DockerHeartbeatConfiguration configuration = configurationFor(receiver.port());
  CURL* curl = curl_easy_init();
  const auto start = SteadyClock::now();
  for (int n = 0; n <= beats; ++n) {
    std::this_thread::sleep_until(start + n * 1s);
    const DockerHeartbeatHttpRequest request =
        DockerHeartbeat::heartbeatRequest(configuration, SystemClock::shared(), "bench");
    curl_slist* headers = nullptr;
    for (const auto& [name, value] : request.headers)
      headers = curl_slist_append(headers, (name + ": " + value).c_str());
    curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_perform(curl);
    curl_slist_free_all(headers);
  }
  curl_easy_cleanup(curl);
  awaitArrivals(receiver, std::size_t(beats) + 1, 5s);
  return timingOf(receiver.arrivals(), 1s);
}

void print(const char* name, const Timing& timing) {
  std::printf("%-26s mean %7.3f ms   worst %7.3f ms   drift first->last %+7.3f ms\n", name, timing.meanMs,
              timing.worstMs, timing.driftMs);
}

}  // namespace

int main(int argc, char** argv) {
  const int beats = argc > 1 ? std::max(2, std::atoi(argv[1])) : 50;
  curl_global_init(CURL_GLOBAL_DEFAULT);
  Receiver receiver;
  std::printf("%d beats at 1 s on %u CPUs\n", beats, std::thread::hardware_concurrency());
  double cpuPerBeatMs = 0;
  const Timing manager = managerRun(receiver, beats, cpuPerBeatMs);
  receiver.clear();
  const Timing bare = bareLoopRun(receiver, beats);
  print("manager", manager);
  print("bare sleep_until + curl", bare);
  std::printf("worst deviation: manager %.3f ms (target < 20 ms), %.2fx the bare loop's\n", manager.worstMs,
              manager.worstMs / std::max(bare.worstMs, 0.001));
  std::printf("manager CPU per beat: %.3f ms\n", cpuPerBeatMs);
  return manager.worstMs < 20 && std::abs(manager.driftMs) < 20 ? 0 : 1;
}
