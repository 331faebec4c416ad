#include "core/protection/client_signing_policy.h"

#include <optional>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

namespace harborkeeper {
namespace {

TEST(ClientSigningPolicyTest, CodeRequirementQuotesBothValuesEscapingBackslashFirst) {
  const std::tuple<ClientSigningPolicy, std::string> cases[] = {
      {ClientSigningPolicy::harborkeeper(),
       R"(identifier "com.lumaq.Harborkeeper" and anchor apple generic and certificate leaf[subject.OU] = "K4T8QW17ZD")"},
      {ClientSigningPolicy::harborkeeperHelper(),
       R"(identifier "com.lumaq.Harborkeeper.Helper" and anchor apple generic and certificate leaf[subject.OU] = "K4T8QW17ZD")"},
      // Escaping the quote first would double the backslash it adds.
      {{R"(a\"b)", R"("t\)"},
       R"(identifier "a\\\"b" and anchor apple generic and certificate leaf[subject.OU] = "\"t\\")"},
  };
  for (const auto& [policy, expected] : cases) EXPECT_EQ(policy.codeRequirementString(), expected);
}

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
