// Real root-owned state files: ownership can only be exercised as root.
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "core/platform/state_file_test_support.h"
#include "core/protection/protection_status_store.h"

namespace harborkeeper {
namespace {

using namespace testing_support;

constexpr uid_t nobody = 65534;

HelperProtectionStatus sampleStatus() {
  HelperProtectionStatus status;
  status.mode = HelperProtectionMode::nextRestart;
  status.succeeded = true;
  status.armedAt = date_time::fromSecondsSince1970(1'790'000'123);
  status.message = "Protected for the next restart.";
  return status;
}

class StateFilesRootTest : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: state files must be owned by root";
    temp_.emplace();
    dir_ = temp_->path() / "harborkeeper";
    filePath_ = dir_ / "ProtectionStatus.plist";
  }

  std::optional<TemporaryDirectory> temp_;
  fs::path dir_, filePath_;
  ProtectionStatusStore rootStore() const { return ProtectionStatusStore(dir_.string(), 0); }
};

TEST_F(StateFilesRootTest, StoreLoadAndClearWithRootOwnership) {
  const ProtectionStatusStore statusStore = rootStore();
  statusStore.store(sampleStatus());
  const struct stat directory = lstatOf(dir_);
  const struct stat file = lstatOf(filePath_);
  EXPECT_EQ(directory.st_uid, 0u);
  EXPECT_EQ(directory.st_mode & 07777, 0700u);
  EXPECT_EQ(file.st_uid, 0u);
  EXPECT_EQ(file.st_mode & 07777, 0600u);

  const std::optional<Bytes> data = statusStore.loadData();
  ASSERT_TRUE(data);
  EXPECT_EQ(HelperProtectionStatus::decode(toString(*data)), sampleStatus());

  statusStore.clear();
  EXPECT_FALSE(fs::exists(filePath_));
  EXPECT_EQ(statusStore.loadData(), std::nullopt);
}

TEST_F(StateFilesRootTest, FileOwnedByAnotherUserIsRefusedEvenWithMode600) {
  const ProtectionStatusStore statusStore = rootStore();
  statusStore.store(sampleStatus());
  ASSERT_EQ(::chown(filePath_.c_str(), nobody, nobody), 0);
  ASSERT_EQ(::chmod(filePath_.c_str(), 0600), 0);

  const auto expected = HelperStateFileSecurityError::insecureStateFile("Expected root ownership.");
  EXPECT_EQ(thrown<HelperStateFileSecurityError>([&] { (void)statusStore.loadData(); }), expected);
  EXPECT_EQ(thrown<HelperStateFileSecurityError>([&] { statusStore.clear(); }), expected);
  EXPECT_EQ(thrown<HelperStateFileSecurityError>([&] { statusStore.validateSecureStatusState(); }), expected);
  EXPECT_EQ(lstatOf(filePath_).st_uid, nobody);

  // The atomic write puts a new root-owned entry in place of the foreign one.
  statusStore.store(sampleStatus());
  EXPECT_EQ(lstatOf(filePath_).st_uid, 0u);
  EXPECT_TRUE(statusStore.loadData());
}

TEST_F(StateFilesRootTest, DirectoryOwnedByAnotherUserIsNeitherUsedNorRepaired) {
  ASSERT_TRUE(fs::create_directory(dir_));
  ASSERT_EQ(::chown(dir_.c_str(), nobody, nobody), 0);
  ASSERT_EQ(::chmod(dir_.c_str(), 0755), 0);

  const auto error = thrown<ProtectionStatusStoreError>([&] { rootStore().store(sampleStatus()); });
  ASSERT_TRUE(error);
  EXPECT_STREQ(error->what(),
               "Harborkeeper could not write protection status. "
               "Harborkeeper helper state directory is not private. Expected root ownership.");
  const struct stat directory = lstatOf(dir_);
  EXPECT_EQ(directory.st_mode & 07777, 0755u);
  EXPECT_EQ(directory.st_uid, nobody);
  EXPECT_TRUE(fs::is_empty(dir_));
}

}  // namespace
}  // namespace harborkeeper
