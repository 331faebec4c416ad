#include <algorithm>
#include <filesystem>
#include <sstream>

#include <gtest/gtest.h>

#include "cli/approval_configuration.h"
#include "cli/approval_output.h"
#include "cli/cli_test_support.h"
#include "core/platform/state_file_test_support.h"

namespace harborkeeper::cli {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing_support::contentOf;
using testing_support::modeOf;
using testing_support::outcome;
using testing_support::run;
using testing_support::TemporaryDirectory;
using testing_support::writeRaw;
using Status = PhoneApprovalMiddlewareStatus;

constexpr std::string_view kSecret = "s3cr3t-listener-key";

std::size_t entries(const fs::path& directory) {
  return std::distance(fs::directory_iterator(directory), {});
}

TEST(ApprovalConfigurationTest, SavedPrivatelyAndReadBackWithoutEverShowingTheSecret) {
  const TemporaryDirectory directory;
  const ApprovalConfigurationStore store(directory.path() / "new" / "approval.json");
  EXPECT_EQ(store.load(), std::nullopt);
  const ApprovalConfiguration saved{"https://approve.example/api/", "lst_1", std::string(kSecret), 90,
                                    "/ca.pem"};
  store.save(saved);
  EXPECT_EQ(store.load(), saved);
  EXPECT_EQ(modeOf(store.file()), 0600u);
  EXPECT_EQ(modeOf(store.file().parent_path()), 0700u);
  EXPECT_EQ(entries(store.file().parent_path()), 1u);

  // A failed save keeps the old file and leaves no temporary file behind.
  const ApprovalConfigurationStore blocked(directory.path() / "new");  // a directory: rename fails
  EXPECT_NE(outcome([&] { blocked.save(saved); }), "");
  EXPECT_EQ(entries(directory.path()), 1u);
  EXPECT_EQ(store.load(), saved);

  const std::string good = contentOf(store.file());
  struct Case {
    std::string content;
    unsigned mode;
    std::string error;
  };
  const std::string file = store.file().string();
  const Case cases[] = {
      {good, 0640,
       file + " holds the listener secret but other users may read or change it; it must be yours "
              "with mode 0600."},
      {R"({"listenerSecret": ")" + std::string(kSecret) + R"("})", 0600,
       file + ": \"endpointURL\" is missing or not of the right type."},
      {R"({"endpointURL":"u","listenerID":"l","listenerSecret":")" + std::string(kSecret) +
           R"(","defaultTTLSeconds":0})",
       0600, file + ": \"defaultTTLSeconds\" must be positive."},
      {std::string(kSecret) + "{", 0600, file + " is not JSON."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.content);
    writeRaw(store.file(), c.content, fs::perms(c.mode));
    EXPECT_EQ(outcome([&] { (void)store.load(); }), c.error);
  }
}

TEST(ApprovalCommandsTest, RefusalsComeBeforeAnyTrafficAndNeverLoseAKeyOrSecret) {
  const TemporaryDirectory directory;
  const std::string config = (directory.path() / "approval.json").string();
  const std::string key = (directory.path() / "device.pem").string();
  const std::string missing = (directory.path() / "missing.json").string();
  ApprovalConfigurationStore(config).save({"https://127.0.0.1:9/", "lst_9", std::string(kSecret), 300, ""});

  const auto created = run({"approval", "device", "init", "--key", key.c_str()});
  EXPECT_EQ(created.status, 0) << created.err;
  EXPECT_EQ(modeOf(key), 0600u);
  const std::string pem = contentOf(key);

  struct Case {
    std::vector<const char*> arguments;
    int status;
    std::string error;
  };
  const Case cases[] = {
      {{"approval", "device", "init", "--key", key.c_str()},
       1,
       key + " already exists; a key file is never overwritten."},
      {{"approval", "--approval-config", config.c_str(), "register", "--endpoint", "https://x/", "--name",
        "n"},
       1,
       "Listener lst_9 is already registered in " + config +
           "; give --replace to register a new one instead."},
      {{"approval", "devices", "--approval-config", missing.c_str()},
       1,
       "Phone approval route is not configured: " + missing +
           " does not exist. Run 'harborkeeper approval register' first."},
      {{"approval", "device", "decide", "apr_1", "maybe", "--device-id", "d", "--key", key.c_str()},
       2,
       "DECISION: maybe not in {approve,deny}"},
      {{"approval", "wait", "apr_1", "--timeout", "0"}, 2, "--timeout: Value 0 not in range 1 to 604800"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.error);
    const auto result = run(c.arguments);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err.substr(0, result.err.find('\n')), "harborkeeper: " + c.error);
    EXPECT_EQ(result.err.find(kSecret), std::string::npos);
  }
  EXPECT_EQ(contentOf(key), pem);
}

PhoneApprovalMiddlewareRecord record(Status status) {
  return {"apr_\x1B[2J", "lst", "p", "m", "h", "c", "e", status};
}

TEST(ApprovalWaitTest, PollsUntilDecidedOrTheDeadline) {
  const std::string request = "Request apr_?[2J";
  const auto failed = [](std::string message) { return Report{{}, std::move(message), ExitStatus::failure}; };
  const struct {
    std::vector<Status> answers;  // the last one repeats
    std::chrono::seconds timeout;
    std::size_t reads;
    std::chrono::seconds slept;
    Report report;
  } cases[] = {
      {{Status::pending, Status::pending, Status::approved}, 10s, 3, 4s, {request + " was approved.\n", {}}},
      {{Status::pending, Status::expired}, 10s, 2, 2s, failed(request + " expired before a device decided.")},
      // The last pause is cut to the deadline, and the deadline still gets its read.
      {{Status::pending}, 3s, 3, 3s, failed(request + " is still pending after 3 s; gave up waiting.")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.report.message);
    std::chrono::steady_clock::time_point clock;
    std::size_t reads = 0;
    ApprovalWait wait;
    wait.read = [&] { return record(c.answers[std::min(reads++, c.answers.size() - 1)]); };
    wait.now = [&] { return clock; };
    wait.sleep = [&](std::chrono::steady_clock::duration pause) { clock += pause; };
    wait.timeout = c.timeout;
    EXPECT_EQ(approvalWaitReport(waitForDecision(wait), c.timeout), c.report);
    EXPECT_EQ(reads, c.reads);
    EXPECT_EQ(clock.time_since_epoch(), c.slept);
  }
}

// Reads the half blocks back into modules: the three finder patterns must sit
// in their corners inside a light quiet zone, or no phone will scan it.
TEST(ApprovalOutputTest, QRCodeDrawsFinderPatternsInTheCorners) {
  std::vector<std::vector<bool>> dark;
  std::istringstream lines(qrCodeText("pt_REOLfPG9gzu5FKIiVNfyDw"));
  for (std::string line; std::getline(lines, line);) {
    ASSERT_TRUE(line.starts_with("\x1B[30;107m") && line.ends_with("\x1B[0m"));
    line = line.substr(9, line.size() - 13);
    std::vector<bool> top;
    std::vector<bool> bottom;
    for (std::size_t i = 0; i < line.size(); i += line[i] == ' ' ? 1 : 3) {
      const std::string cell = line.substr(i, line[i] == ' ' ? 1 : 3);
      top.push_back(cell == "\u2588" || cell == "\u2580");
      bottom.push_back(cell == "\u2588" || cell == "\u2584");
    }
    dark.push_back(top);
    dark.push_back(bottom);
  }
  const int size = static_cast<int>(dark.front().size());
  const int symbol = size - 8;
  ASSERT_EQ(symbol, 25);  // version 2 for a token this long
  for (const auto& [left, top] : {std::pair{4, 4}, {4 + symbol - 7, 4}, {4, 4 + symbol - 7}}) {
    for (int y = 0; y < 7; ++y) {
      for (int x = 0; x < 7; ++x) {
        const bool ring = x == 0 || y == 0 || x == 6 || y == 6;
        const bool core = x >= 2 && x <= 4 && y >= 2 && y <= 4;
        EXPECT_EQ(dark[top + y][left + x], ring || core) << left << "," << top << " +" << x << "," << y;
      }
    }
  }
  for (int i = 0; i < size; ++i) {
    EXPECT_FALSE(dark[0][i] || dark[i][0] || dark[size - 1][i] || dark[i][size - 1]);
  }
  EXPECT_EQ(outcome([] { (void)qrCodeText(std::string(8000, 'x')); }), "The text is too long for a QR code.");
}

TEST(ApprovalOutputTest, TextFromTheMiddlewareCannotDriveTheTerminal) {
  const std::vector<PhoneApprovalPairedDeviceRecord> devices = {
      {"dev_1", "lst", "Anna\x1B]0;owned\x07", "2026-11-15T16:20:00Z", std::nullopt},
      {"dev_2", "lst", "Ben", "2026-11-15T16:21:00Z", "2026-12-15T16:21:00Z"}};
  EXPECT_EQ(pairedDevicesReport(devices, false).output,
            "dev_1\tAnna?]0;owned?\tregistered 2026-11-15T16:20:00Z\n"
            "dev_2\tBen\tregistered 2026-11-15T16:21:00Z\texpires 2026-12-15T16:21:00Z\n");
  EXPECT_EQ(approvalRecordReport(record(Status::pending), false).output,
            "Request: apr_?[2J\nStatus: pending\nMachine: m (h)\nProfile: p\nCreated: c\nExpires: e\n");
}

}  // namespace
}  // namespace harborkeeper::cli
