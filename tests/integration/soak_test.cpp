// The built daemon under 32 clients for 20 s, and killed in the middle of its
// writes: the short form of bench/soak.cpp.

#include <unistd.h>

#include <sstream>

#include <gtest/gtest.h>

#include "core/platform/state_file_test_support.h"
#include "core/protection/protection_status.h"

#include "bench/soak/soak_harness.h"

namespace harborkeeper::testing_support {
namespace {

using namespace std::chrono_literals;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

SoakSetup builtPieces() {
  return {HARBORKEEPER_HELPER_BIN, HARBORKEEPER_PAM_DIR, HARBORKEEPER_TEST_TOOLS_DIR};
}

class SoakTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: a throwaway PAM user and root-owned state";
  }
};

template <class Report, class Print>
std::string printed(const Report& report, Print print) {
  std::ostringstream out;
  print(out, report);
  return out.str();
}

TEST_F(SoakTest, ThirtyTwoClientsForTwentySeconds) {
  SoakEnvironment environment(builtPieces());
  SoakOptions options;
  options.duration = 20s;
  options.memoryMustStayFlat = !kSanitized;  // the daemon is built as this test is
  const SoakReport report = runSoak(environment, options);
  EXPECT_TRUE(report.passed()) << printed(report, printSoakReport);
  EXPECT_GE(report.stallsCut, 1U) << "the stalled frame was never cut off";
  EXPECT_GE(report.garbageConnections, 6U) << "every kind of malformed frame is refused";
}

TEST_F(SoakTest, KilledMidStoreTenTimes) {
  SoakEnvironment environment(builtPieces());
  const CrashLoopReport report =
      runCrashLoop(environment.crashLoopTarget(),
                   {CrashOperation::armNextRestart, CrashOperation::enablePersistentProtection,
                    CrashOperation::configureDockerHeartbeat},
                   10);
  EXPECT_EQ(report.rounds, 10);
  EXPECT_TRUE(report.passed()) << printed(report, printCrashLoopReport);
}

// The crash loop's check must see each way a file can be damaged, or a torn
// write would pass unnoticed.
TEST_F(SoakTest, StateFileCheckNamesEveryFault) {
  const TemporaryDirectory directory;
  const fs::path state = directory.path();
  CrashLoopTarget target{state, {}, {}, {}, "someone", "secret", {}};
  const Bytes status =
      HelperProtectionStatus{HelperProtectionMode::nextRestart, true, Date(), "Armed."}.encodeXml();
  const std::string whole(status.begin(), status.end());
  // A file of the state directory written over the whole status (none: nothing
  // damaged), whether a kill may have left temporary copies, the start of the problem.
  const struct {
    const char* file;
    std::string content;
    unsigned mode;
    bool temporaryCopiesAllowed;
    std::string expected;
  } cases[] = {
      {"", "", 0, false, ""},
      {"ProtectionStatus.plist", whole.substr(0, whole.size() / 2), 0600, false, "ProtectionStatus.plist: "},
      {"ProtectionStatus.plist", whole, 0644, false, "ProtectionStatus.plist: not private"},
      {"PersistentCredential.cred", "plain", 0600, false, "PersistentCredential.cred: does not unseal"},
      {".ProtectionStatus.plist.Ab3dE6gH", whole, 0600, false, "a temporary copy is left"},
      {".ProtectionStatus.plist.Ab3dE6gH", whole, 0600, true, ""},
      {"ProtectionStatus.plist.bak", whole, 0600, true, "ProtectionStatus.plist.bak: not a state file"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.file) + (c.temporaryCopiesAllowed ? " after a kill" : ""));
    for (const auto& entry : fs::directory_iterator(state)) fs::remove(entry.path());
    writeRaw(state / "ProtectionStatus.plist", whole);
    if (*c.file) writeRaw(state / c.file, c.content, fs::perms(c.mode));
    const std::vector<std::string> problems = stateFileProblems(target, c.temporaryCopiesAllowed);
    if (c.expected.empty()) {
      EXPECT_TRUE(problems.empty()) << problems.front();
    } else {
      ASSERT_EQ(problems.size(), 1U);
      EXPECT_TRUE(problems[0].starts_with(c.expected)) << problems[0];
    }
  }
}

}  // namespace
}  // namespace harborkeeper::testing_support
