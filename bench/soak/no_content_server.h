#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "core/platform/unique_fd.h"

namespace harborkeeper::testing_support {

// An HTTP endpoint on 127.0.0.1 that reads each request whole and answers
// "204 No Content", closing the connection, so a client keeps no socket of
// it. One request at a time on a thread of its own. Test code only.
class NoContentServer final {
 public:
  NoContentServer();  // throws std::system_error
  ~NoContentServer();
  NoContentServer(const NoContentServer&) = delete;
  NoContentServer& operator=(const NoContentServer&) = delete;

  [[nodiscard]] std::string url() const;  // http://127.0.0.1:PORT/heartbeat
  [[nodiscard]] std::uint64_t answered() const noexcept { return answered_; }

 private:
  void serve();
  void answer(UniqueFd connection);

  UniqueFd listening_;
  UniqueFd stop_;  // eventfd
  int port_ = 0;
  std::atomic<std::uint64_t> answered_{0};
  std::thread thread_;
};

}  // namespace harborkeeper::testing_support
