#include "core/foundation/uuid.h"

#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace harborkeeper::uuid {

TEST(UuidTest, HasVersion4ShapeAndIsUnique) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string id = makeV4();
    ASSERT_THAT(id,
                testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}"));
    ASSERT_TRUE(seen.insert(id).second) << id;
  }
}

TEST(UuidTest, ParseAcceptsAnyCaseAndNormalisesToUpper) {
  const std::pair<std::string_view, std::optional<std::string>> cases[] = {
      {"e621e1f8-c36c-495a-93fc-0c247a3e6e5f", "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"},
      {"", std::nullopt},
      {"E621E1F8C36C495A93FC0C247A3E6E5F", std::nullopt},
      {"{E621E1F8-C36C-495A-93FC-0C247A3E6E5F}", std::nullopt},
      {"E621E1F8-C36C-495A-93FC-0C247A3E6E5G", std::nullopt},
      {"E621E1F8-C36C-495A93FC--0C247A3E6E5F", std::nullopt},
      {" E621E1F8-C36C-495A-93FC-0C247A3E6E5", std::nullopt},
  };
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    EXPECT_EQ(parse(text), expected);
  }
}

}  // namespace harborkeeper::uuid
