#include "core/protection/protection_status_store.h"

#include <unistd.h>

#include <fstream>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "core/foundation/plist.h"
#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

using namespace testing_support;

HelperProtectionStatus sampleStatus(bool succeeded = true) {
  HelperProtectionStatus status;
  status.mode = HelperProtectionMode::persistent;
  status.succeeded = succeeded;
  status.armedAt = date_time::fromSecondsSince1970(1'790'000'000);
  status.message = succeeded ? "Protected for future restarts." : "Short";
  return status;
}

class ProtectionStatusStoreTest : public testing::Test {
 protected:
  const uid_t me_ = ::getuid();
  const TemporaryDirectory temp_;
  const fs::path dir_ = temp_.path() / "state";
  const fs::path filePath_ = dir_ / "ProtectionStatus.plist";
  const ProtectionStatusStore store_{dir_.string(), me_};
};

TEST_F(ProtectionStatusStoreTest, StoredStatusLoadsBackAsTheSameXmlRecord) {
  EXPECT_EQ(ProtectionStatusStore().filePath(), "/var/lib/harborkeeper/ProtectionStatus.plist");
  EXPECT_EQ(store_.filePath(), filePath_.string());
  for (const HelperProtectionStatus& status : {sampleStatus(true), sampleStatus(false)}) {
    store_.store(status);
    EXPECT_EQ(modeOf(dir_), 0700u);
    EXPECT_EQ(modeOf(filePath_), 0600u);
    EXPECT_NO_THROW(store_.validateSecureStatusState());
    const std::optional<Bytes> data = store_.loadData();
    ASSERT_TRUE(data);
    EXPECT_EQ(toString(*data).rfind("<?xml", 0), 0u);
    EXPECT_EQ(HelperProtectionStatus::decode(toString(*data)), status);
  }
}

TEST_F(ProtectionStatusStoreTest, EveryFileFailureBecomesWriteFailed) {
  struct Case {
    std::function<void()> arrange;
    uid_t owner;
    std::string detail;
  };
  const Case cases[] = {
      {[&] { fs::create_symlink(temp_.path(), dir_); }, me_,
       "Harborkeeper helper state directory is not private. Symbolic links are not allowed."},
      {[&] { std::ofstream(dir_) << "x"; }, me_,
       "Harborkeeper helper state directory is not private. Unexpected file type."},
      {[&] { fs::create_directory(dir_); }, me_ + 1,
       "Harborkeeper helper state directory is not private. Expected root ownership."},
      {[&] { fs::create_directories(filePath_); }, me_,
       "Could not replace " + filePath_.string() + ": Is a directory."},
  };
  for (const Case& c : cases) {
    fs::remove_all(dir_);
    c.arrange();
    const auto error = thrown<ProtectionStatusStoreError>(
        [&] { ProtectionStatusStore(dir_.string(), c.owner).store(sampleStatus()); });
    ASSERT_TRUE(error) << c.detail;
    EXPECT_EQ(error->kind(), ProtectionStatusStoreError::Kind::writeFailed);
    EXPECT_EQ(error->detail(), c.detail);
    EXPECT_EQ(error->what(), "Harborkeeper could not write protection status. " + c.detail);
  }
  EXPECT_STREQ(ProtectionStatusStoreError::encodeFailed().what(),
               "Harborkeeper could not encode protection status.");
}

TEST_F(ProtectionStatusStoreTest, EncodingErrorPassesUnchangedAndWritesNothing) {
  HelperProtectionStatus status = sampleStatus();
  status.message = "bad \xff byte";
  EXPECT_THROW(store_.store(status), plist::EncodeError);
  EXPECT_FALSE(fs::exists(dir_));
}

TEST_F(ProtectionStatusStoreTest, ClearRemovesTheFileAndAcceptsAMissingOne) {
  EXPECT_NO_THROW(store_.clear());
  EXPECT_FALSE(fs::exists(dir_));
  EXPECT_EQ(store_.loadData(), std::nullopt);

  store_.store(sampleStatus());
  store_.clear();
  EXPECT_TRUE(entriesOf(dir_).empty());
  EXPECT_EQ(store_.loadData(), std::nullopt);

  store_.store(sampleStatus());
  const fs::path decoy = temp_.path() / "decoy.plist";
  fs::rename(filePath_, decoy);
  fs::create_symlink(decoy, filePath_);
  const auto expected = HelperStateFileSecurityError::insecureStateFile("Symbolic links are not allowed.");
  EXPECT_EQ(thrown<HelperStateFileSecurityError>([&] { store_.clear(); }), expected);
  EXPECT_EQ(thrown<HelperStateFileSecurityError>([&] { (void)store_.loadData(); }), expected);
  EXPECT_TRUE(fs::is_symlink(filePath_));
}

}  // namespace
}  // namespace harborkeeper
