#include "cli/secret_input.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "core/platform/state_file_test_support.h"
#include "core/platform/unique_fd.h"

namespace harborkeeper::cli {
namespace {

using testing_support::outcome;

// Each input in a closed pipe, then what successive reads give: a line or the error.
TEST(ReadSecretLineTest, OneLineAtATimeWithinTheLimit) {
  const std::string longest(maximumSecretLength, 's');
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"pa ss\nnext\n", {"pa ss", "next", ""}},
      {"dos\r\nlast", {"dos", "last", ""}},
      {"", {""}},
      {longest + "\n", {longest, ""}},
      {longest + "s", {"The secret is longer than 4096 bytes."}},
  };
  const auto read = [](int fd) {
    return outcome<SecretInputError>([&] { return std::string(readSecretLine(fd).view()); });
  };
  for (const auto& [input, lines] : cases) {
    SCOPED_TRACE(input.substr(0, 20));
    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
    const UniqueFd reader(fds[0]);
    ASSERT_EQ(::write(UniqueFd(fds[1]).get(), input.data(), input.size()), ssize_t(input.size()));
    for (const std::string& line : lines) EXPECT_EQ(read(reader.get()), line);
  }
  EXPECT_EQ(read(-1), "The secret could not be read.");
}

}  // namespace
}  // namespace harborkeeper::cli
