#include "core/foundation/uuid.h"

#include <set>

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

}  // namespace harborkeeper::uuid
