#include "core/protection/protection_status_store.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include "core/foundation/plist.h"
#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

using namespace testing_support;

// Encoding errors and the errors of clear, load and validate pass unchanged; every
// failure of the write itself, security checks included, becomes writeFailed.
TEST(ProtectionStatusStoreTest, StoresAsXmlAndWrapsOnlyWriteFailures) {
  EXPECT_EQ(ProtectionStatusStore().filePath(), "/var/lib/harborkeeper/ProtectionStatus.plist");
  const TemporaryDirectory temp;
  const fs::path dir = temp.path() / "state";
  const ProtectionStatusStore store(dir.string(), ::getuid());
  HelperProtectionStatus status{HelperProtectionMode::persistent, true, Date(std::chrono::hours(500'000)),
                                "bad \xff"};
  EXPECT_THROW(store.store(status), plist::EncodeError);
  EXPECT_FALSE(fs::exists(dir));  // nothing was written
  store.clear();                  // nothing to clear is not an error

  status.message = "Protected.";
  store.store(status);
  const std::string xml = toString(store.loadData().value());
  EXPECT_TRUE(xml.starts_with("<?xml")) << xml;
  EXPECT_EQ(HelperProtectionStatus::decode(xml), status);

  const ProtectionStatusStore foreign(dir.string(), ::getuid() + 1);  // expects another owner
  const std::string owner = "Harborkeeper helper state directory is not private. Expected root ownership.";
  EXPECT_EQ(outcome<ProtectionStatusStoreError>([&] { foreign.store(status); }),
            "Harborkeeper could not write protection status. " + owner);
  EXPECT_EQ(outcome<HelperStateFileSecurityError>([&] { (void)foreign.loadData(); }), owner);
  store.clear();
  EXPECT_EQ(store.loadData(), std::nullopt);
  EXPECT_STREQ(ProtectionStatusStoreError::encodeFailed().what(),
               "Harborkeeper could not encode protection status.");
}

}  // namespace
}  // namespace harborkeeper
