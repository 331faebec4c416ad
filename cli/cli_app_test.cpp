#include "cli/cli_app.h"

#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>
#include <functional>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/ipc/frame_stream.h"
#include "core/ipc/helper_protocol.h"
#include "core/protection/protection_status.h"

namespace harborkeeper::cli {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

Outcome run(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "harborkeeper");
  std::ostringstream out;
  std::ostringstream err;
  const int status = runCli(static_cast<int>(arguments.size()), arguments.data(), out, err);
  return {status, out.str(), err.str()};
}

// Serves one request on a socket of its own with `answer`'s reply; no reply
// closes the connection instead.
class FakeHelper final {
 public:
  using Answer = std::function<std::optional<plist::Array>(const ipc::Request&)>;

  explicit FakeHelper(Answer answer) : directory_(makeDirectory()), socketPath_(directory_ + "/s") {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath_.copy(address.sun_path, sizeof(address.sun_path) - 1);
    listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(::listen(listener_.get(), 1), 0);
    server_ = std::thread([this, answer = std::move(answer)] { serveOne(answer); });
  }
  FakeHelper(const FakeHelper&) = delete;
  FakeHelper& operator=(const FakeHelper&) = delete;
  ~FakeHelper() {
    server_.join();
    std::filesystem::remove_all(directory_);
  }

  [[nodiscard]] const char* socketPath() const { return socketPath_.c_str(); }

 private:
  static std::string makeDirectory() {
    std::string pattern = std::filesystem::temp_directory_path() / "cli_app_test.XXXXXX";
    EXPECT_NE(::mkdtemp(pattern.data()), nullptr);
    return pattern;
  }

  void serveOne(const Answer& answer) {
    ipc::FrameStream stream(UniqueFd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)));
    const auto frame = stream.readFrame(std::chrono::seconds(5));
    if (!frame) return;
    const ipc::Request request = ipc::decodeRequest(asStringView(*frame));
    if (auto reply = answer(request)) stream.writeFrame(ipc::encodeReply({request.id, std::move(*reply)}));
  }

  std::string directory_;
  std::string socketPath_;
  UniqueFd listener_;
  std::thread server_;
};

TEST(CliAppTest, UsageAndHelp) {
  const Outcome bare = run({});
  EXPECT_EQ(bare.status, 2);
  EXPECT_THAT(bare.err, StartsWith("harborkeeper: A command is required.\n"));
  EXPECT_THAT(bare.err, HasSubstr("status"));

  const Outcome help = run({"--help"});
  EXPECT_EQ(help.status, 0);
  for (const char* text : {"version", "users", "status", "--socket", "Exit status: 0 success"}) {
    EXPECT_THAT(help.out, HasSubstr(text));
  }

  // {arguments, standard error}
  const std::pair<std::vector<const char*>, std::string> errors[] = {
      {{"users", "--bogus"},
       "harborkeeper: The following argument was not expected: --bogus\n"
       "Run 'harborkeeper users --help' for usage.\n"},
      {{"frob"},
       "harborkeeper: The following argument was not expected: frob\n"
       "Run 'harborkeeper --help' for usage.\n"},
      {{"--socket"},
       "harborkeeper: --socket: 1 required PATH missing\nRun 'harborkeeper --help' for usage.\n"},
  };
  for (const auto& [arguments, err] : errors) {
    SCOPED_TRACE(err);
    const Outcome usage = run(arguments);
    EXPECT_EQ(usage.status, 2);
    EXPECT_EQ(usage.err, err);
    EXPECT_EQ(usage.out, "");
  }
  EXPECT_EQ(run({"version", "users"}).status, 2);
}

TEST(CliAppTest, UnreachableHelper) {
  // --socket before or after the command's name.
  for (const auto& arguments : {std::vector<const char*>{"--socket", "/nonexistent/s", "version"},
                                std::vector<const char*>{"status", "--json", "--socket", "/nonexistent/s"}}) {
    const Outcome unreachable = run(arguments);
    EXPECT_EQ(unreachable.status, 3);
    EXPECT_THAT(unreachable.err, StartsWith("harborkeeper: "));
    EXPECT_THAT(unreachable.err, HasSubstr("/nonexistent/s"));
    EXPECT_EQ(unreachable.out, "");
  }
}

TEST(CliAppTest, HelperReplies) {
  const HelperProtectionStatus status{HelperProtectionMode::persistent, true, Date{}, "Armed."};
  const std::optional<Bytes> none;
  struct Case {
    const char* command;
    std::optional<plist::Array> reply;  // none: the helper hangs up
    Outcome expected;
  };
  const Case cases[] = {
      {"version", ipc::textReply("1.3"), {0, "1.3\n", ""}},
      {"version", std::nullopt, {3, "", "harborkeeper: "}},
      {"users",
       ipc::optionalDataReply(none),
       {1, "", "harborkeeper: The helper could not list FileVault-enabled users.\n"}},
      {"status", ipc::optionalDataReply(none), {1, "", "harborkeeper: No protection status is recorded.\n"}},
      {"status",
       ipc::optionalDataReply(toBytes("<plist><dict/></plist>")),
       {1, "", "harborkeeper: The helper's reply could not be read: "}},
      {"status",
       ipc::optionalDataReply(status.encodeXml()),
       {0, "Protection expired\nArmed.\nAttempted at 1970-01-01T00:00:00Z (persistent)\n", ""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command + (": " + c.expected.err));
    const FakeHelper helper([&](const ipc::Request&) { return c.reply; });
    const Outcome result = run({c.command, "--socket", helper.socketPath()});
    EXPECT_EQ(result.status, c.expected.status);
    EXPECT_EQ(result.out, c.expected.out);
    EXPECT_THAT(result.err, StartsWith(c.expected.err));
  }
}

}  // namespace
}  // namespace harborkeeper::cli
