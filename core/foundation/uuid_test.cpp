#include "core/foundation/uuid.h"

#include <set>
#include <string>

#include <gtest/gtest.h>

namespace harborkeeper::uuid {
namespace {

bool isUpperHex(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'); }

TEST(UuidTest, HasVersion4ShapeAndIsUnique) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string id = makeV4();
    ASSERT_EQ(id.size(), 36u) << id;
    for (std::size_t at = 0; at < id.size(); ++at) {
      if (at == 8 || at == 13 || at == 18 || at == 23) {
        ASSERT_EQ(id[at], '-') << id;
      } else {
        ASSERT_TRUE(isUpperHex(id[at])) << id;
      }
    }
    ASSERT_EQ(id[14], '4') << id;
    ASSERT_NE(std::string("89AB").find(id[19]), std::string::npos) << id;
    seen.insert(id);
  }
  EXPECT_EQ(seen.size(), 1000u);
}

}  // namespace
}  // namespace harborkeeper::uuid
