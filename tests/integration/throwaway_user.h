#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/platform/command_runner.h"

namespace harborkeeper::testing_support {

// Lower-case letters only, so that the text never matches anything else by chance.
std::string randomLetters(std::size_t count);

// Runs an account tool (useradd, passwd, ...), retrying while another test
// program holds the account files' lock.
CommandResult runAccountTool(const std::string& tool, const std::vector<std::string>& arguments,
                             std::optional<std::string_view> input = std::nullopt);

// A local account with a random name (useradd -m), removed with its home when
// destroyed. Needs root. The password may hold any character but NUL (a
// newline included): only its hash reaches chpasswd, on standard input.
class ThrowawayUser final {
 public:
  explicit ThrowawayUser(std::string_view password);
  ~ThrowawayUser();
  ThrowawayUser(const ThrowawayUser&) = delete;
  ThrowawayUser& operator=(const ThrowawayUser&) = delete;

  void changePassword(std::string_view password) const;
  [[nodiscard]] const std::string& name() const { return name_; }

 private:
  std::string name_;
};

}  // namespace harborkeeper::testing_support
