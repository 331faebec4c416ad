#include "helper/docker_heartbeat_configuration_store.h"

#include <unistd.h>

#include <functional>

#include <gtest/gtest.h>

#include "core/foundation/plist.h"
#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

using namespace testing_support;

const DockerHeartbeatConfiguration kValid{"https://unlocker.local/hb", " docker-1 ",
                                          "  twenty-four characters!!  ", 45.5};

struct StoreTest : testing::Test {
  const TemporaryDirectory temp;
  const fs::path state = temp.path() / "state";
  const fs::path file = state / "DockerHeartbeat.plist";
  const DockerHeartbeatConfigurationStore store{state, ::getuid()};
};

TEST_F(StoreTest, StoreValidatesFirstKeepsWhatItWasGivenAndRepairsModes) {
  EXPECT_EQ(outcome([&] { return store.load().profileID; }), "Docker heartbeat is not configured.");
  DockerHeartbeatConfiguration invalid = kValid;
  invalid.endpointURL = "ftp://unlocker.local/";
  EXPECT_EQ(outcome([&] { store.store(invalid); }),
            "Docker heartbeat configuration is invalid. Use a valid HTTP or HTTPS heartbeat URL.");
  EXPECT_FALSE(fs::exists(state));

  store.store(kValid);
  EXPECT_EQ(store.load(), kValid);
  fs::permissions(state, fs::perms(0755));
  fs::permissions(file, fs::perms(0644));
  store.store(kValid);
  EXPECT_EQ(modeOf(state), 0700U);
  EXPECT_EQ(modeOf(file), 0600U);
}

// Each way a stored file goes wrong, and the one error a load gives for it.
TEST_F(StoreTest, LoadNamesWhatIsWrongWithTheFile) {
  DockerHeartbeatConfiguration shortSecret = kValid;
  shortSecret.sharedSecret = "short                        ";
  const std::string unsafe =
      "Docker heartbeat configuration is not stored safely. Harborkeeper helper state ";
  const struct {
    const char* name;
    std::function<void()> damage;
    std::string error;
  } cases[] = {
      {"directory widened", [&] { fs::permissions(state, fs::perms(0755)); },
       unsafe + "directory is not private. Expected permissions 700."},
      {"edited to a short secret",
       [&] { writeRaw(file, std::string(asStringView(shortSecret.encodeXml()))); },
       "Docker heartbeat configuration is invalid. Heartbeat secret must be at least 24 characters."},
      {"wrong shape", [&] { writeRaw(file, "<plist><array/></plist>"); },
       "Docker heartbeat configuration is invalid. The data couldn’t be read because it isn’t in the correct "
       "format."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(state);
    store.store(kValid);
    c.damage();
    EXPECT_EQ(outcome([&] { return store.load().profileID; }), c.error);
  }
}

}  // namespace
}  // namespace harborkeeper
