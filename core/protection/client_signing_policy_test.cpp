#include "core/protection/client_signing_policy.h"

#include <optional>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

namespace harborkeeper {
namespace {

TEST(ClientSigningPolicyTest, AllowsOnlyTheExactIdentifierAndTeam) {
  const std::tuple<std::string, std::optional<std::string>, bool> cases[] = {
      {"com.lumaq.Harborkeeper", "K4T8QW17ZD", true},
      {"com.lumaq.Harborkeeper", std::nullopt, false},
      {"com.lumaq.Harborkeeper", "", false},
      {"com.lumaq.harborkeeper", "K4T8QW17ZD", false},
      {"com.lumaq.Harborkeeper", "k4t8qw17zd", false},
      {"com.lumaq.Harborkeeper.Helper", "K4T8QW17ZD", false},
      {"com.lumaq.Harborkeeper ", "K4T8QW17ZD", false},
  };
  for (const auto& [identifier, team, allowed] : cases) {
    SCOPED_TRACE(identifier + " / " + team.value_or("(none)"));
    EXPECT_EQ(ClientSigningPolicy::harborkeeper().allows({identifier, team}), allowed);
  }
}

}  // namespace
}  // namespace harborkeeper
