#include "core/platform/state_file_security.h"

#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using Error = HelperStateFileSecurityError;

// Checks stop at the first failure, in the order type, owner, exact
// permissions; a fact that could not be fetched fails its check. Secure files
// and their refusals are also the state file tests' own.
TEST(HelperStateFileSecurityTest, AttributeChecksRunTypeThenOwnerThenExactPermissions) {
  constexpr auto dir = StateFileType::directory;
  constexpr auto file = StateFileType::regularFile;
  const std::tuple<bool, StateFileAttributes, std::string> cases[] = {
      // the directory check or the file check, the facts, the failure
      {true, {dir, 501, 01700}, "directory is not private. Expected permissions 700."},
      {true, {dir, 501, std::nullopt}, "directory is not private. Expected permissions 700."},
      {true, {std::nullopt, 501, 0700}, "directory is not private. Unexpected file type."},
      {true, {file, 0, 0755}, "directory is not private. Unexpected file type."},
      {false, {StateFileType::symbolicLink, 501, 0600}, "file is not private. Unexpected file type."},
      {false, {file, 502, 0644}, "file is not private. Expected root ownership."},
  };
  int row = 0;
  for (const auto& [directory, facts, expected] : cases) {
    // Explicit captures: clang before 16 cannot capture structured bindings implicitly.
    const std::string failure = outcome<Error>([&directory = directory, &facts = facts] {
      directory ? HelperStateFileSecurity::validateDirectory(facts, 501)
                : HelperStateFileSecurity::validateStateFile(facts, 501);
    });
    EXPECT_EQ(failure, expected.empty() ? "" : "Harborkeeper helper state " + expected) << "row " << row++;
  }
}

}  // namespace
}  // namespace harborkeeper
