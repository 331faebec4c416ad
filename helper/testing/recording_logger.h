#pragma once

// A logger that keeps every line. Test code only.

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "helper/logger.h"

namespace harborkeeper::testing_support {

class RecordingLogger final : public Logger {
 public:
  void log(LogLevel /*level*/, std::string_view message) noexcept override {
    const std::lock_guard lock(mutex_);
    lines_.emplace_back(message);
  }
  [[nodiscard]] std::vector<std::string> lines() const {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace harborkeeper::testing_support
