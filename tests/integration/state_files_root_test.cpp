// Real root-owned state files: ownership can only be exercised as root.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "core/platform/state_file_test_support.h"
#include "core/protection/protection_status_store.h"

namespace harborkeeper {
namespace {

using namespace testing_support;

// Owner and permission bits of the entry itself.
std::pair<unsigned, unsigned> ownerAndMode(const fs::path& path) {
  struct stat s {};
  return ::lstat(path.c_str(), &s) ? std::pair(~0u, 0u) : std::pair(s.st_uid, s.st_mode & 07777);
}

TEST(StateFilesRootTest, RootOwnedStateIsUsedAndStateOfNobodysRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root: only root can own state files and hand them to nobody";
  const TemporaryDirectory temp;
  const fs::path dir = temp.path() / "harborkeeper";
  const fs::path file = dir / "ProtectionStatus.plist";
  const ProtectionStatusStore store(dir.string(), 0);
  store.store({});
  EXPECT_EQ(ownerAndMode(dir), std::pair(0u, 0700u));
  EXPECT_EQ(ownerAndMode(file), std::pair(0u, 0600u));

  // A file of nobody's is refused even at 0600; the atomic write puts a root-owned one in its place.
  ASSERT_EQ(::chown(file.c_str(), 65534, 65534), 0);
  const std::string refusal = "Harborkeeper helper state file is not private. Expected root ownership.";
  EXPECT_EQ(outcome<HelperStateFileSecurityError>([&] { (void)store.loadData(); }), refusal);
  EXPECT_EQ(outcome<HelperStateFileSecurityError>([&] { store.clear(); }), refusal);
  store.store({});
  store.clear();
  EXPECT_FALSE(fs::exists(file));

  // A directory of nobody's is neither used nor repaired.
  ASSERT_EQ(::chown(dir.c_str(), 65534, 65534), 0);
  ASSERT_EQ(::chmod(dir.c_str(), 0755), 0);
  EXPECT_EQ(outcome<ProtectionStatusStoreError>([&] { store.store({}); }),
            "Harborkeeper could not write protection status. "
            "Harborkeeper helper state directory is not private. Expected root ownership.");
  EXPECT_EQ(ownerAndMode(dir), std::pair(65534u, 0755u));
  EXPECT_TRUE(fs::is_empty(dir));
}

}  // namespace
}  // namespace harborkeeper
