#include "tests/integration/throwaway_user.h"

#include <chrono>
#include <mutex>
#include <optional>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "core/platform/command_runner.h"

namespace harborkeeper::testing_support {
namespace {

// SHA-512 crypt of the whole input, so a password with a newline can be set.
std::string passwordHash(std::string_view password) {
  const CommandResult hashed =
      CommandRunner(30).run("/usr/bin/python3",
                            {"-W", "ignore", "-c",
                             "import crypt, sys; print(crypt.crypt(sys.stdin.buffer.read().decode(), "
                             "crypt.mksalt(crypt.METHOD_SHA512)))"},
                            password);
  if (hashed.exitCode != 0 || !hashed.standardOutput.starts_with("$6$")) {
    throw std::runtime_error("hashing a password failed: " + hashed.standardError);
  }
  return hashed.standardOutput;
}

}  // namespace

// Parallel test programs add users too; useradd and friends fail rather than
// wait while another holds the account files' lock.
CommandResult runAccountTool(const std::string& tool, const std::vector<std::string>& arguments,
                             std::optional<std::string_view> input) {
  static std::mutex oneAtATime;
  const std::scoped_lock lock(oneAtATime);
  CommandResult result;
  for (int attempt = 0; attempt < 30; ++attempt) {
    result = CommandRunner(30).run(tool, arguments, input);
    if (result.exitCode == 0) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return result;
}

std::string randomLetters(std::size_t count) {
  std::random_device device;  // one for each call: callers are on several threads
  std::string text(count, 'a');
  for (char& letter : text) letter = static_cast<char>('a' + device() % 26);
  return text;
}

ThrowawayUser::ThrowawayUser(std::string_view password) : name_(randomLetters(10)) {
  const CommandResult added = runAccountTool("/usr/sbin/useradd", {"-m", "-s", "/bin/sh", name_});
  if (added.exitCode != 0) throw std::runtime_error("useradd failed: " + added.standardError);
  try {
    changePassword(password);
  } catch (...) {
    runAccountTool("/usr/sbin/userdel", {"-f", "-r", name_});
    throw;
  }
}

ThrowawayUser::~ThrowawayUser() {
  // -f: a session of the user may still be closing.
  runAccountTool("/usr/sbin/userdel", {"-f", "-r", name_});
}

void ThrowawayUser::changePassword(std::string_view password) const {
  const CommandResult set =
      runAccountTool("/usr/sbin/chpasswd", {"-e"}, name_ + ":" + passwordHash(password));
  if (set.exitCode != 0) throw std::runtime_error("chpasswd failed: " + set.standardError);
}

}  // namespace harborkeeper::testing_support
