#include "core/platform/secure_state_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using SecurityError = HelperStateFileSecurityError;

const std::string kDirectory = "Harborkeeper helper state directory is not private. ";
const std::string kFile = "Harborkeeper helper state file is not private. ";
const std::string kLink = "Symbolic links are not allowed.", kType = "Unexpected file type.";

// Every test also checks that no operation, failed or not, leaves a descriptor open.
struct SecureStateFileTest : testing::Test {
  void TearDown() override { EXPECT_EQ(entryCount(), descriptorsBefore_); }

  const long descriptorsBefore_ = entryCount();
  const TemporaryDirectory temp_;
  const fs::path root_ = temp_.path(), dir_ = root_ / "parent" / "state", path_ = dir_ / "Status.plist";
  const SecureStateFile file_{dir_.string(), "Status.plist", ::getuid()};
};

TEST_F(SecureStateFileTest, MissingFileIsNothingUntilWrittenAndAfterRemoval) {
  // Looking creates nothing.
  EXPECT_TRUE(!file_.exists() && !file_.read() && !file_.remove() && !fs::exists(root_ / "parent"));
  file_.write(toBytes("a much longer first version"));
  // A copy left by a write that was killed before its rename goes with the next write; others stay.
  writeRaw(dir_ / ".Status.plist.k1LLed00", "half");
  writeRaw(dir_ / ".Status.plist.kept", "not ours");
  file_.write(toBytes("short"));
  EXPECT_EQ(toString(file_.read().value()), "short");
  EXPECT_TRUE(modeOf(dir_) == 0700u && modeOf(path_) == 0600u);
  EXPECT_FALSE(fs::exists(dir_ / ".Status.plist.k1LLed00"));
  fs::remove(dir_ / ".Status.plist.kept");
  EXPECT_EQ(entryCount(dir_), 1);  // no temporary file left behind
  const std::string largest(SecureStateFile::maximumFileSize, 'a');
  file_.write(toBytes(largest));
  EXPECT_EQ(file_.read(), toBytes(largest));
  file_.write(toBytes(largest + "a"));
  EXPECT_EQ(outcome<FileSystemError>([&] { (void)file_.read(); }),
            "Could not read " + path_.string() + ": File too large.");
  EXPECT_TRUE(file_.remove());
  fs::create_directory(path_);  // the directory stays; a file cannot be renamed over a directory
  EXPECT_EQ(outcome<FileSystemError>([&] { file_.write(toBytes("x")); }),
            "Could not replace " + path_.string() + ": Is a directory.");
  EXPECT_EQ(entryCount(dir_), 1);  // the temporary file is gone
}

// Each insecure entry is refused, also when swapped in after the path check
// just before the open, and never followed. Write replaces an insecure file and
// repairs a widened directory, but never writes through a linked directory.
TEST_F(SecureStateFileTest, InsecureEntriesAreRefusedAndRepairedOnlyByWrite) {
  const fs::path moved = root_ / "moved";
  // name, whether write repairs it, how the entry is spoilt, the refusal
  const std::tuple<const char*, bool, std::function<void()>, std::string> cases[] = {
      {"file widened", true, [&] { ::chmod(path_.c_str(), 0644); }, kFile + "Expected permissions 600."},
      {"dangling link", true, [&] { fs::remove(path_), fs::create_symlink("none", path_); }, kFile + kLink},
      {"fifo", true, [&] { fs::remove(path_), ::mkfifo(path_.c_str(), 0600); }, kFile + kType},
      {"dir widened", true, [&] { ::chmod(dir_.c_str(), 0755); }, kDirectory + "Expected permissions 700."},
      {"dir link", false, [&] { fs::rename(dir_, moved), fs::create_symlink("../moved", dir_); },
       kDirectory + kLink},
  };
  for (const auto& [name, repairable, spoil, expected] : cases) {
    SCOPED_TRACE(name);
    for (const fs::path& entry : {root_ / "parent", moved}) fs::remove_all(entry);
    file_.write(toBytes("genuine"));
    SecureStateFile file(dir_.string(), "Status.plist", ::getuid());
    bool swapped = false;
    // Explicit captures: clang before 16 cannot capture structured bindings implicitly.
    file.setBeforeOpenHookForTesting([&, &spoil = spoil, &expected = expected](const std::string& path) {
      if (!swapped && path == (expected.starts_with(kDirectory) ? dir_ : path_)) swapped = true, spoil();
    });
    // The read swaps the entry in before its open; remove and validate find it at their path check.
    EXPECT_EQ(outcome<SecurityError>([&] { (void)file.read(); }), expected);
    EXPECT_EQ(outcome<SecurityError>([&] { file.remove(); }), expected);
    EXPECT_EQ(outcome<SecurityError>([&] { file.validate(); }), expected);
    EXPECT_EQ(outcome<SecurityError>([&] { file.write(toBytes("new")); }), repairable ? "" : expected);
    EXPECT_EQ(outcome<SecurityError>([&] { return toString(file.read().value()); }),
              repairable ? "new" : expected);
    EXPECT_NE(contentOf(moved / "Status.plist"), "new");
  }
}

}  // namespace
}  // namespace harborkeeper
