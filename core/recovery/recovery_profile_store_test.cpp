#include "core/recovery/recovery_profile_store.h"

#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

namespace fs = std::filesystem;
using namespace testing_support;

constexpr std::string_view kId = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

RecoveryProfile profileNamed(std::string name, std::string id = std::string(kId)) {
  RecoveryProfile profile;
  profile.id = std::move(id);
  profile.macName = std::move(name);
  profile.localHostname = "studio.local";
  profile.fileVaultUsername = "ana";
  profile.lastKnownLocalIPs = {"10.0.0.2"};
  return profile;
}

std::string storedText(const RecoveryProfile& profile) {
  return json::serialize(encodeRecoveryProfile(profile));
}

TEST(RecoveryProfileStoreTest, SavesPrivatelyKeepingUnknownMembers) {
  const TemporaryDirectory temporary;
  const fs::path directory = temporary.path() / "config" / "harborkeeper";
  const RecoveryProfileStore store(directory / "profiles.json");
  EXPECT_TRUE(store.load().empty());

  const std::vector<RecoveryProfile> profiles = {
      profileNamed("Studio"), profileNamed("Mini", "0A1B2C3D-0000-4000-8000-000000000001")};
  store.save(profiles);
  EXPECT_EQ(store.load(), profiles);
  EXPECT_EQ(modeOf(store.file()), 0600u);
  EXPECT_EQ(modeOf(directory), 0700u);
  EXPECT_EQ(modeOf(directory.parent_path()), 0700u);
  EXPECT_EQ(entryCount(directory), 1);  // no temporary file left

  store.save({});
  EXPECT_TRUE(store.load().empty());

  // Members this version does not know survive a save.
  RecoveryProfile profile = profileNamed("Studio");
  profile.pairedAt = Date(std::chrono::seconds(1'700'000'000));
  json::Json stored = encodeRecoveryProfile(profile);
  stored["id"] = "e621e1f8-c36c-495a-93fc-0c247a3e6e5f";
  stored["futureField"] = {{"nested", true}};
  writeRaw(store.file(), json::Json::array({stored}).dump());

  std::vector<RecoveryProfile> loaded = store.load();
  ASSERT_EQ(loaded.size(), 1u);
  loaded[0].macName = "Studio 2";
  loaded[0].pairedAt.reset();
  store.save(loaded);

  const json::Json saved = json::parse(contentOf(store.file()))[0];
  EXPECT_EQ(saved["futureField"], json::Json({{"nested", true}}));
  EXPECT_EQ(saved["macName"], "Studio 2");
  EXPECT_FALSE(saved.contains("pairedAt"));  // a cleared field is not brought back
  EXPECT_EQ(store.load(), loaded);
}

TEST(RecoveryProfileStoreTest, UnusableFilesAreRefusedAndLeftIntact) {
  const TemporaryDirectory temporary;
  const RecoveryProfileStore store(temporary.path() / "profiles.json");
  const std::string file = store.file().string();
  json::Json badPort = encodeRecoveryProfile(profileNamed("Mini", "0A1B2C3D-0000-4000-8000-000000000001"));
  badPort["sshPort"] = "22";
  const std::string lowerCaseCopy = storedText(profileNamed("Other", "e621e1f8-c36c-495a-93fc-0c247a3e6e5f"));

  const std::pair<std::string, std::string> cases[] = {
      {"", file + ": not a JSON array of profiles."},
      {"{\"profiles\": []}", file + ": not a JSON array of profiles."},
      {"[" + storedText(profileNamed("Studio")) + "," + json::serialize(badPort) + "]",
       file + ": profile 2: \"sshPort\" must be an integer."},
      {"[" + storedText(profileNamed("Studio")) + "," + lowerCaseCopy + "]",
       file + ": two profiles have the id " + std::string(kId) + "."},
  };
  for (const auto& [content, message] : cases) {
    SCOPED_TRACE(message);
    writeRaw(store.file(), content);
    EXPECT_EQ(outcome<RecoveryProfileStoreError>([&] { (void)store.load(); }), message);
    // Saving over a file that is not a list would lose what it holds.
    if (message.ends_with("not a JSON array of profiles.")) {
      EXPECT_EQ(outcome<RecoveryProfileStoreError>([&] { store.save({}); }), message);
    }
    EXPECT_EQ(contentOf(store.file()), content);
  }

  fs::remove(store.file());
  fs::create_directory(store.file());
  EXPECT_EQ(outcome<RecoveryProfileStoreError>([&] { (void)store.load(); }),
            "Could not read " + file + ": Is a directory.");
  writeRaw(temporary.path() / "plain", "");
  const RecoveryProfileStore blocked(temporary.path() / "plain" / "profiles.json");
  EXPECT_EQ(outcome<RecoveryProfileStoreError>([&] { blocked.save({}); }),
            "Could not save " + blocked.file().string() + ": Not a directory.");
  EXPECT_EQ(outcome<RecoveryProfileStoreError>([&] {
              store.save({profileNamed("A"), profileNamed("B")});
            }),
            file + ": two profiles have the id " + std::string(kId) + ".");
}

TEST(RecoveryProfileStoreTest, FindsByExactNameThenByIdInAnyCase) {
  const std::vector<RecoveryProfile> profiles = {
      profileNamed("Studio"),
      profileNamed("0a1b2c3d-0000-4000-8000-000000000001", "AAAAAAAA-0000-4000-8000-0000000000AA"),
      profileNamed("Mini", "0A1B2C3D-0000-4000-8000-000000000001")};
  const std::pair<std::string_view, const RecoveryProfile*> cases[] = {
      {"Studio", profiles.data()},
      {"studio", nullptr},
      {"e621e1f8-c36c-495a-93fc-0c247a3e6e5f", profiles.data()},
      // A name wins over another profile's id.
      {"0a1b2c3d-0000-4000-8000-000000000001", &profiles[1]},
      {"", nullptr},
  };
  for (const auto& [key, expected] : cases) {
    SCOPED_TRACE(key);
    EXPECT_EQ(RecoveryProfileStore::find(profiles, key), expected);
  }
}

// NOLINTBEGIN(concurrency-mt-unsafe): the test's only thread touches the environment
void setOrUnset(const char* name, const char* value) {
  if (value != nullptr) {
    ::setenv(name, value, 1);
  } else {
    ::unsetenv(name);
  }
}

TEST(RecoveryProfileStoreTest, DefaultPathFollowsXdgConfigHomeThenHome) {
  const std::string savedXdg = ::getenv("XDG_CONFIG_HOME") != nullptr ? ::getenv("XDG_CONFIG_HOME") : "";
  const std::string savedHome = ::getenv("HOME") != nullptr ? ::getenv("HOME") : "";
  // {XDG_CONFIG_HOME, HOME, expected}; no HOME: the password database's.
  const std::tuple<const char*, const char*, std::string> cases[] = {
      {"/xdg", "/home/ana", "/xdg/harborkeeper/profiles.json"},
      {"relative/xdg", "/home/ana", "/home/ana/.config/harborkeeper/profiles.json"},
      {"", "/home/ana", "/home/ana/.config/harborkeeper/profiles.json"},
      {nullptr, nullptr,
       (fs::path(::getpwuid(::getuid())->pw_dir) / ".config/harborkeeper/profiles.json").string()},
  };
  for (const auto& [xdg, home, expected] : cases) {
    SCOPED_TRACE(expected);
    setOrUnset("XDG_CONFIG_HOME", xdg);
    setOrUnset("HOME", home);
    EXPECT_EQ(RecoveryProfileStore::defaultPath(), fs::path(expected));
  }
  setOrUnset("XDG_CONFIG_HOME", savedXdg.empty() ? nullptr : savedXdg.c_str());
  setOrUnset("HOME", savedHome.empty() ? nullptr : savedHome.c_str());
}
// NOLINTEND(concurrency-mt-unsafe)

}  // namespace
}  // namespace harborkeeper
