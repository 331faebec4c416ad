#include "core/recovery/recovery_profile_store.h"

#include <stdlib.h>

#include <gtest/gtest.h>

#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

namespace fs = std::filesystem;
using namespace testing_support;

const std::string kId = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
const std::string kLowerId = "e621e1f8-c36c-495a-93fc-0c247a3e6e5f";
const std::string kOtherId = "0A1B2C3D-0000-4000-8000-000000000001";

RecoveryProfile profileNamed(std::string name, std::string id = kId) {
  RecoveryProfile profile;
  profile.id = std::move(id);
  profile.macName = std::move(name);
  return profile;
}

std::string stored(const RecoveryProfile& profile) { return json::serialize(encodeRecoveryProfile(profile)); }

TEST(RecoveryProfileStoreTest, SavesPrivatelyKeepsUnknownMembersAndNeverOverwritesWhatItCannotRead) {
  using Error = RecoveryProfileStoreError;
  const TemporaryDirectory temporary;
  const fs::path directory = temporary.path() / "config" / "harborkeeper";
  const RecoveryProfileStore store(directory / "profiles.json");
  const std::vector<RecoveryProfile> profiles = {profileNamed("Studio"), profileNamed("Mini", kOtherId)};
  store.save(profiles);
  EXPECT_EQ(store.load(), profiles);
  EXPECT_EQ(std::tuple(modeOf(store.file()), modeOf(directory), modeOf(directory.parent_path())),
            std::tuple(0600u, 0700u, 0700u));
  EXPECT_EQ(entryCount(directory), 1);  // no temporary file left

  // Members this version does not know survive a save; the id matches in any case.
  json::Json newer = encodeRecoveryProfile(profileNamed("Studio", kLowerId));
  newer["futureField"] = {{"nested", true}};
  newer["pairedAt"] = "2023-11-14T22:13:20Z";
  writeRaw(store.file(), json::Json::array({newer}).dump());
  std::vector<RecoveryProfile> loaded = store.load();
  loaded.at(0).pairedAt.reset();  // a cleared field is not brought back
  store.save(loaded);
  json::Json expected = encodeRecoveryProfile(loaded[0]);
  expected["futureField"] = newer["futureField"];
  EXPECT_EQ(json::parse(contentOf(store.file())), json::Json::array({expected}));

  const std::string file = store.file().string();
  const std::string duplicate = file + ": two profiles have the id " + kId + ".";
  const std::pair<std::string, std::string> cases[] = {
      {"{\"profiles\": []}", file + ": not a JSON array of profiles."},
      {"[" + stored(profileNamed("Studio")) + "," + stored(profileNamed("Mini", "not-a-uuid")) + "]",
       file + ": profile 2: \"id\" is not a UUID."},
      {"[" + stored(profileNamed("A")) + "," + stored(profileNamed("B", kLowerId)) + "]", duplicate},
  };
  for (const auto& [content, message] : cases) {
    SCOPED_TRACE(message);
    writeRaw(store.file(), content);
    EXPECT_EQ(outcome<Error>([&] { (void)store.load(); }), message);
    // Saving over a file that is not a list would lose what it holds.
    if (message.ends_with("profiles.")) {
      EXPECT_EQ(outcome<Error>([&] { store.save({}); }), message);
    }
    EXPECT_EQ(contentOf(store.file()), content);
  }
  EXPECT_EQ(outcome<Error>([&] { store.save({profileNamed("A"), profileNamed("B")}); }), duplicate);
  // Only a missing file reads as an empty list, which a save would then replace.
  EXPECT_EQ(outcome<Error>([&] { (void)RecoveryProfileStore(directory).load(); }),
            "Could not read " + directory.string() + ": Is a directory.");
}

TEST(RecoveryProfileStoreTest, FindsByExactNameThenByIdInAnyCase) {
  const std::vector<RecoveryProfile> profiles = {profileNamed("Studio"), profileNamed(kOtherId, "x"),
                                                 profileNamed("Mini", kOtherId)};
  EXPECT_EQ(RecoveryProfileStore::find(profiles, "Studio"), profiles.data());
  EXPECT_EQ(RecoveryProfileStore::find(profiles, "studio"), nullptr);
  EXPECT_EQ(RecoveryProfileStore::find(profiles, kLowerId), profiles.data());
  EXPECT_EQ(RecoveryProfileStore::find(profiles, kOtherId), &profiles[1]);  // a name wins over another's id
}

TEST(RecoveryProfileStoreTest, DefaultPathFollowsAbsoluteXdgConfigHomeElseHome) {
  // NOLINTBEGIN(concurrency-mt-unsafe): the test's only thread touches the environment
  const char* const savedHome = ::getenv("HOME");
  const std::string home = savedHome != nullptr ? savedHome : "/";
  ::setenv("HOME", "/home/ana", 1);
  ::setenv("XDG_CONFIG_HOME", "/xdg", 1);
  EXPECT_EQ(RecoveryProfileStore::defaultPath(), "/xdg/harborkeeper/profiles.json");
  ::setenv("XDG_CONFIG_HOME", "relative/xdg", 1);
  EXPECT_EQ(RecoveryProfileStore::defaultPath(), "/home/ana/.config/harborkeeper/profiles.json");
  ::unsetenv("XDG_CONFIG_HOME");
  ::setenv("HOME", home.c_str(), 1);
  // NOLINTEND(concurrency-mt-unsafe)
}

}  // namespace
}  // namespace harborkeeper
