#include "core/platform/state_file_security.h"

#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

namespace Security = HelperStateFileSecurity;
using namespace testing_support;

const std::string directoryNotPrivate = "Harborkeeper helper state directory is not private. ";
const std::string fileNotPrivate = "Harborkeeper helper state file is not private. ";
constexpr std::uint32_t me = 501;
constexpr auto dir = StateFileType::directory;
constexpr auto reg = StateFileType::regularFile;

struct AttributeCase {
  bool directory;  // otherwise the state file check
  StateFileAttributes attributes;
  std::string expected;  // empty: the check passes
};

TEST(HelperStateFileSecurityTest, AttributeCheckRunsTypeThenOwnerThenExactPermissions) {
  const std::string d = directoryNotPrivate, f = fileNotPrivate;
  const AttributeCase cases[] = {
      {true, {dir, me, 0700}, ""},
      {true, {dir, me, 0755}, d + "Expected permissions 700."},
      {true, {dir, me, 0750}, d + "Expected permissions 700."},
      {true, {dir, me, 0500}, d + "Expected permissions 700."},
      {true, {dir, me, 01700}, d + "Expected permissions 700."},
      {true, {dir, me, std::nullopt}, d + "Expected permissions 700."},
      {true, {reg, me, 0700}, d + "Unexpected file type."},
      {true, {StateFileType::symbolicLink, me, 0700}, d + "Unexpected file type."},
      {true, {std::nullopt, me, 0700}, d + "Unexpected file type."},
      {true, {reg, 0u, 0755}, d + "Unexpected file type."},
      {true, {dir, 0u, 0755}, d + "Expected root ownership."},
      {true, {dir, std::nullopt, 0700}, d + "Expected root ownership."},
      {false, {reg, me, 0600}, ""},
      {false, {reg, me, 0400}, f + "Expected permissions 600."},
      {false, {reg, me, 0644}, f + "Expected permissions 600."},
      {false, {reg, me, 04600}, f + "Expected permissions 600."},
      {false, {reg, me, 0700}, f + "Expected permissions 600."},
      {false, {dir, me, 0600}, f + "Unexpected file type."},
      {false, {StateFileType::other, me, 0600}, f + "Unexpected file type."},
      {false, {reg, me + 1, 0600}, f + "Expected root ownership."},
  };
  for (const AttributeCase& c : cases) {
    const auto error = thrown<HelperStateFileSecurityError>([&] {
      c.directory ? Security::validateDirectory(c.attributes, me)
                  : Security::validateStateFile(c.attributes, me);
    });
    EXPECT_EQ(error ? std::string(error->what()) : "", c.expected)
        << (c.directory ? "directory " : "file ") << std::oct << c.attributes.posixPermissions.value_or(0);
    if (error) {
      EXPECT_EQ(error->kind(), c.directory ? HelperStateFileSecurityError::Kind::insecureDirectory
                                           : HelperStateFileSecurityError::Kind::insecureStateFile);
    }
  }
}

TEST(HelperStateFileSecurityTest, ErrorsAreEqualByKindAndDetail) {
  const auto a = HelperStateFileSecurityError::insecureStateFile("Unexpected file type.");
  EXPECT_EQ(a, HelperStateFileSecurityError::insecureStateFile("Unexpected file type."));
  EXPECT_NE(a, HelperStateFileSecurityError::insecureDirectory("Unexpected file type."));
  EXPECT_NE(a, HelperStateFileSecurityError::insecureStateFile("Expected root ownership."));
  EXPECT_EQ(Security::expectedDirectoryPermissions, 448u);
  EXPECT_EQ(Security::expectedStateFilePermissions, 384u);
}

TEST(HelperStateFileSecurityTest, FileSystemErrorNamesOperationPathAndReason) {
  const FileSystemError error(ENOSPC, "Could not write", "/var/lib/harborkeeper/ProtectionStatus.plist");
  EXPECT_STREQ(error.what(),
               "Could not write /var/lib/harborkeeper/ProtectionStatus.plist: No space left on device.");
  EXPECT_EQ(error.code(), std::errc::no_space_on_device);
}

// Path checks on real entries owned by whoever runs the test.
TEST(HelperStateFileSecurityTest, PathChecksNeverFollowLinks) {
  const TemporaryDirectory temp;
  const fs::path& root = temp.path();
  makePrivateDirectory(root / "dir");
  writeRaw(root / "file", "x", 0600);
  fs::create_symlink(root / "dir", root / "dir-link");
  fs::create_symlink(root / "file", root / "file-link");
  ASSERT_EQ(::mkfifo((root / "fifo").c_str(), 0600), 0);
  const uid_t owner = ::getuid();

  struct Case {
    void (*check)(const std::string&, uid_t);
    const char* name;
    uid_t owner;
    std::string expected;  // empty: passes
  };
  const Case cases[] = {
      {Security::validateDirectory, "dir", owner, ""},
      {Security::validateStateFile, "file", owner, ""},
      {Security::validateDirectory, "dir-link", owner,
       directoryNotPrivate + "Symbolic links are not allowed."},
      {Security::validateStateFile, "file-link", owner, fileNotPrivate + "Symbolic links are not allowed."},
      {Security::validateDirectory, "file", owner, directoryNotPrivate + "Unexpected file type."},
      {Security::validateStateFile, "dir", owner, fileNotPrivate + "Unexpected file type."},
      {Security::validateStateFile, "fifo", owner, fileNotPrivate + "Unexpected file type."},
      {Security::validateStateFile, "file", owner + 1, fileNotPrivate + "Expected root ownership."},
      {Security::validateDirectory, "dir", owner + 1, directoryNotPrivate + "Expected root ownership."},
  };
  for (const Case& c : cases) {
    const auto error =
        thrown<HelperStateFileSecurityError>([&] { c.check((root / c.name).string(), c.owner); });
    EXPECT_EQ(error ? std::string(error->what()) : "", c.expected) << c.name;
  }

  const std::string missing = (root / "missing").string();
  const auto error = thrown<FileSystemError>([&] { Security::validateStateFile(missing, owner); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->what(), "Could not inspect " + missing + ": No such file or directory.");
}

}  // namespace
}  // namespace harborkeeper
