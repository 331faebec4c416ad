#include "cli/export_commands.h"

#include <sstream>

#include <gtest/gtest.h>

#include "cli/cli_app.h"
#include "core/platform/state_file_test_support.h"
#include "core/provisioning/local_unlocker_profile_exporter.h"

namespace harborkeeper::cli {
namespace {

namespace fs = std::filesystem;
using testing_support::contentOf;
using testing_support::modeOf;
using testing_support::TemporaryDirectory;
using testing_support::writeRaw;

RecoveryProfile profileNamed(std::string name) {
  RecoveryProfile profile;
  profile.id = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
  profile.macName = std::move(name);
  profile.localHostname = "studio.local";
  profile.fileVaultUsername = "ana";
  return profile;
}

int run(std::vector<const char*> arguments, std::string& out, std::string& err) {
  arguments.insert(arguments.begin(), "harborkeeper");
  std::ostringstream outStream;
  std::ostringstream errStream;
  const int status = runCli(static_cast<int>(arguments.size()), arguments.data(), outStream, errStream);
  out = outStream.str();
  err = errStream.str();
  return status;
}

TEST(ExportCommandsTest, WritesAPrivateFileOrPrintsAndRefusesSensitiveNames) {
  const TemporaryDirectory directory;
  const std::string profiles = (directory.path() / "profiles.json").string();
  const std::string output = (directory.path() / "docker.json").string();
  const std::vector<RecoveryProfile> list{profileNamed("Studio")};
  RecoveryProfileStore(profiles).save(list);
  writeRaw(output, "old", fs::perms(0644));
  std::string out;
  std::string err;

  ASSERT_EQ(run({"export", "docker", "--profiles", profiles.c_str(), "--approval-worker-url",
                 "https://a.example/", "--output", output.c_str()},
                out, err),
            0)
      << err;
  EXPECT_EQ(out, "Exported 1 profile for the Docker agent to " + output + ".\n");
  EXPECT_EQ(contentOf(output),
            LocalUnlockerProfileExporter::dockerProfilesJSON(list, "https://a.example/", {}) + "\n");
  EXPECT_EQ(modeOf(output), 0600U);
  EXPECT_EQ(std::distance(fs::directory_iterator(directory.path()), {}), 2);  // no temporary file left

  ASSERT_EQ(run({"export", "windows", "--profiles", profiles.c_str(), "--listener-id", " l-1 "}, out, err),
            0);
  EXPECT_EQ(out, LocalUnlockerProfileExporter::windowsProfilesJSON(list, {}, "l-1") + "\n");

  RecoveryProfileStore(profiles).save({profileNamed("PassWord box")});
  EXPECT_EQ(run({"export", "docker", "--profiles", profiles.c_str(), "--output", output.c_str()}, out, err),
            1);
  EXPECT_EQ(err,
            "harborkeeper: The export mentions \"password\" (in a profile name, user name, host or option); "
            "nothing was written.\n");
  EXPECT_EQ(out, "");
  EXPECT_EQ(contentOf(output),
            LocalUnlockerProfileExporter::dockerProfilesJSON(list, "https://a.example/", {}) + "\n");
}

TEST(ExportCommandsTest, AFailedWriteNamesTheFileAndLeavesNothing) {
  const TemporaryDirectory directory;
  const fs::path missing = directory.path() / "missing" / "out.json";
  try {
    writePrivateFileAtomically(missing, "[]");
    ADD_FAILURE() << "wrote into a missing directory";
  } catch (const CommandError& error) {
    EXPECT_EQ(std::string(error.what()),
              "Could not write " + missing.string() + ": No such file or directory.");
  }
  const fs::path target = directory.path() / "directory";
  fs::create_directory(target);
  EXPECT_THROW(writePrivateFileAtomically(target, "[]"), CommandError);  // rename cannot replace a directory
  EXPECT_EQ(std::distance(fs::directory_iterator(directory.path()), {}), 1);
}

}  // namespace
}  // namespace harborkeeper::cli
