#include "cli/secret_input.h"

#include <fcntl.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/platform/unique_fd.h"

namespace harborkeeper::cli {
namespace {

// A pipe holding `input`, its writing end closed.
UniqueFd pipeWith(const std::string& input) {
  int fds[2];
  EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0);
  UniqueFd reader(fds[0]);
  const UniqueFd writer(fds[1]);
  EXPECT_EQ(::write(writer.get(), input.data(), input.size()), static_cast<ssize_t>(input.size()));
  return reader;
}

TEST(ReadSecretLineTest, OneLineAtATime) {
  const std::string longest(maximumSecretLength, 's');
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"pa ss\nnext\n", {"pa ss", "next", ""}},
      {"dos\r\nlast", {"dos", "last", ""}},
      {"", {""}},
      {longest + "\n", {longest}},
  };
  for (const auto& [input, lines] : cases) {
    SCOPED_TRACE(input.substr(0, 20));
    const UniqueFd fd = pipeWith(input);
    for (const std::string& line : lines) EXPECT_EQ(readSecretLine(fd.get()).view(), line);
  }
}

TEST(ReadSecretLineTest, Failures) {
  const UniqueFd tooLong = pipeWith(std::string(maximumSecretLength + 1, 's'));
  EXPECT_THAT(
      [&] { readSecretLine(tooLong.get()); },
      testing::ThrowsMessage<SecretInputError>(testing::StrEq("The secret is longer than 4096 bytes.")));
  EXPECT_THAT([] { readSecretLine(-1); },
              testing::ThrowsMessage<SecretInputError>(testing::StrEq("The secret could not be read.")));
}

}  // namespace
}  // namespace harborkeeper::cli
