#include "cli/export_commands.h"

#include <gtest/gtest.h>

#include "cli/cli_test_support.h"
#include "core/platform/state_file_test_support.h"
#include "core/provisioning/local_unlocker_profile_exporter.h"

namespace harborkeeper::cli {
namespace {

namespace fs = std::filesystem;
using testing_support::contentOf;
using testing_support::entryCount;
using testing_support::modeOf;
using testing_support::TemporaryDirectory;
using testing_support::writeRaw;

using testing_support::CliRun;
using testing_support::run;

RecoveryProfile profileNamed(std::string name) {
  RecoveryProfile profile;
  profile.id = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
  profile.macName = std::move(name);
  profile.localHostname = "studio.local";
  profile.fileVaultUsername = "ana";
  return profile;
}

// Every refusal or failed write must leave the last export and no temporary file.
TEST(ExportCommandsTest, WritesAPrivateFileOrPrintsOrLeavesTheOldFile) {
  const TemporaryDirectory directory;
  const fs::path dir = directory.path();
  const std::string profiles = (dir / "profiles.json").string();
  const std::string sensitive = (dir / "sensitive.json").string();
  const std::string output = (dir / "docker.json").string();
  const std::string blocked = (dir / "directory").string();
  const std::vector<RecoveryProfile> list{profileNamed("Studio")};
  RecoveryProfileStore(profiles).save(list);
  RecoveryProfileStore(sensitive).save({profileNamed("PassWord box")});
  writeRaw(output, "old", fs::perms(0644));
  fs::create_directory(blocked);
  const std::string written =
      LocalUnlockerProfileExporter::dockerProfilesJSON(list, "https://a.example/", {}) + "\n";

  // {arguments after "export FORMAT --profiles", what is printed: a refusal on standard error}
  const std::pair<std::vector<const char*>, std::string> cases[] = {
      {{"docker", profiles.c_str(), "--approval-worker-url", "https://a.example/", "--output",
        output.c_str()},
       "Exported 1 profile for the Docker agent to " + output + ".\n"},
      {{"windows", profiles.c_str(), "--listener-id", " l-1 "},
       LocalUnlockerProfileExporter::windowsProfilesJSON(list, {}, "l-1") + "\n"},
      {{"docker", sensitive.c_str(), "--output", output.c_str()},
       "harborkeeper: The export mentions \"password\" (in a profile name, user name, host or option); "
       "nothing was written.\n"},
      {{"docker", profiles.c_str(), "--output", blocked.c_str()},  // rename cannot replace a directory
       "harborkeeper: Could not write " + blocked + ": Is a directory.\n"},
  };
  for (const auto& [given, printed] : cases) {
    SCOPED_TRACE(given.back());
    std::vector<const char*> arguments{"export", given[0], "--profiles"};
    arguments.insert(arguments.end(), given.begin() + 1, given.end());
    const CliRun result = run(arguments);
    const bool refused = printed.starts_with("harborkeeper: ");
    EXPECT_EQ(result.status, refused ? 1 : 0);
    EXPECT_EQ(refused ? result.err : result.out, printed);
    EXPECT_EQ(refused ? result.out : result.err, "");
    EXPECT_EQ(contentOf(output), written);
    EXPECT_EQ(modeOf(output), 0600U);
    EXPECT_EQ(entryCount(dir), 4);
  }
}

}  // namespace
}  // namespace harborkeeper::cli
