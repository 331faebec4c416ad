#pragma once

// Helpers shared by the state file tests (unit and integration). Test code only.

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <string>

#include <gtest/gtest.h>

namespace harborkeeper::testing_support {

namespace fs = std::filesystem;

// The exception of type E that `f` throws; nothing if it returns. Other
// exception types escape and fail the test.
template <class E, class F>
std::optional<E> thrown(F&& f) {
  try {
    f();
  } catch (const E& error) {
    return error;
  }
  return std::nullopt;
}

inline struct stat lstatOf(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status;
}

inline unsigned modeOf(const fs::path& path) { return lstatOf(path).st_mode & 07777; }

inline std::set<std::string> entriesOf(const fs::path& directory) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) names.insert(entry.path().filename().string());
  return names;
}

inline void writeRaw(const fs::path& path, const std::string& content, unsigned mode) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
  ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
}

inline std::string contentOf(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

inline void makePrivateDirectory(const fs::path& path) {
  fs::create_directories(path);
  ASSERT_EQ(::chmod(path.c_str(), 0700), 0) << path;
}

// A fresh directory under the system temporary directory, removed with its
// contents at the end of the test.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (fs::temp_directory_path() / "harborkeeper-state-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }

  [[nodiscard]] const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

}  // namespace harborkeeper::testing_support
