#pragma once

// File helpers shared by the state file and command runner tests. Test code only.

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace harborkeeper::testing_support {

namespace fs = std::filesystem;

// The text of the E that `f` throws; otherwise what `f` returns, or "" for
// void. Other exception types escape and fail the test.
template <class E = std::exception, class F>
std::string outcome(F&& f) {
  try {
    if constexpr (!std::is_void_v<decltype(f())>) return f();
    f();
  } catch (const E& error) {
    return error.what();
  }
  return "";
}

// The twelve permission bits of the entry itself, not of a link's target.
inline unsigned modeOf(const fs::path& path) { return unsigned(fs::symlink_status(path).permissions()); }

// The open descriptors of this process by default.
inline long entryCount(const fs::path& dir = "/proc/self/fd") {
  return std::distance(fs::directory_iterator(dir), {});
}

inline void writeRaw(const fs::path& path, const std::string& content, fs::perms mode = fs::perms(0600)) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
  fs::permissions(path, mode);
}

inline std::string contentOf(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// A fresh directory, removed with its contents at the end of the test.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  }
  ~TemporaryDirectory() { fs::remove_all(path_); }
  fs::path path() const { return path_; }

 private:
  std::string path_ = (fs::temp_directory_path() / "harborkeeper-test-XXXXXX").string();
};

}  // namespace harborkeeper::testing_support
