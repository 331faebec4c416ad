#include "helper/peer_check.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

#include "core/foundation/plist.h"
#include "core/foundation/text.h"
#include "core/platform/state_file_test_support.h"
#include "core/platform/unique_fd.h"
#include "helper/secure_path.h"
#include "helper/socket_endpoint.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using Dict = plist::Dictionary;

const std::string kApp = "com.lumaq.Harborkeeper", kTeam = "K4T8QW17ZD";

// A row expects the name of the file opened, or the refusal.
TEST(OpenSecurelyTest, OpensOnlyThroughSafeDirectoriesAndRefusesEveryUnsafeStep) {
  const TemporaryDirectory temp;
  const std::string top = temp.path().string();
  const std::string file = top + "/dir/file";
  using Entry = std::pair<std::string, int>;  // a directory's name ends in "/"
  for (const auto& [name, mode] :
       {Entry("dir/", 0755), Entry("dir/sub/", 0755), Entry("open/", 0777), Entry("sticky/", 01777),
        Entry("foreign/", 01777), Entry("dir/file", 0644), Entry("dir/shared", 0664),
        Entry("open/file", 0644), Entry("sticky/file", 0644), Entry("foreign/file", 0644)}) {
    name.ends_with('/') ? (void)fs::create_directory(temp.path() / name) : writeRaw(temp.path() / name, name);
    fs::permissions(temp.path() / name, fs::perms(mode));
  }
  fs::create_symlink("file", temp.path() / "dir/link");
  fs::create_symlink("dir", temp.path() / "linked");
  const uid_t me = ::getuid();
  // Only root can give a directory away.
  ASSERT_TRUE(me != 0 || ::chown((temp.path() / "foreign").c_str(), 1, 1) == 0);
  // Root-owned directories are trusted whatever the expected owner.
  const std::string notOther = (me == 0 ? file + " is not owned by" : top + " is not owned by root or") +
                               " uid " + std::to_string(me + 1) + ".";
  const std::tuple<std::string, uid_t, std::string> cases[] = {
      {file, me, "dir/file"},
      {top + "//sticky/file", me, "sticky/file"},
      {top + "/dir/shared", me, top + "/dir/shared is writable by group or others."},
      {top + "/open/file", me, top + "/open is writable by group or others."},
      {top + "/foreign/file", me, top + "/foreign is not owned by root."},
      {file, me + 1, notOther},
      {top + "/dir/link", me, top + "/dir/link is a symbolic link."},
      {top + "/linked/file", me, top + "/linked is a symbolic link."},
      {top + "/dir/sub", me, top + "/dir/sub is not a regular file."},
      {"tmp/file", me, "tmp/file is not an absolute path."},
      {top + "/dir/../dir/file", me, top + R"(/dir/../dir/file contains a "." or ".." component.)"},
  };
  for (const auto& [path, owner, expected] : cases) {
    SCOPED_TRACE(path + " for uid " + std::to_string(owner));
    if (me != 0 && path.ends_with("foreign/file")) continue;
    // Bindings are passed by name: clang 14 cannot capture them.
    EXPECT_EQ(outcome<SecurePathError>([&, &path = path, owner = owner] {
                const UniqueFd fd = openSecurely(path, owner);
                return fs::relative(fs::read_symlink("/proc/self/fd/" + std::to_string(fd.get())),
                                    temp.path());
              }),
              expected);
  }
}

struct FakeInspector final : PeerInspector {
  PeerExecutable inspect(int) const override { return {42, "/opt/cli"}; }
};

std::string xml(const plist::Value& value) { return toString(plist::encode(value, plist::Format::xml)); }

// The verifier outlives the rows, so each check reads the registry afresh.
TEST(PeerVerifierTest, AdmitsRunTrustedThenClientsListedInASafeValidRegistryWithTheAppIdentity) {
  const TemporaryDirectory temp;
  const std::string path = (temp.path() / "clients.plist").string();
  const std::string registry = "The trusted-client registry " + path;
  const PeerVerifier runTrusted(path, {PeerVerifier::trustedAsApp("/opt/cli")},
                                std::make_unique<FakeInspector>());
  EXPECT_EQ(runTrusted.verify(-1).path, "/opt/cli");  // no registry needed
  const PeerVerifier verifier(path, {PeerVerifier::trustedAsApp("/opt")}, std::make_unique<FakeInspector>(),
                              ::getuid());
  const auto one = [](const Dict& client) { return xml(plist::Array{client}); };
  const std::string listed =
      xml(plist::Array{Dict{{"path", "/opt/b"}, {"identifier", "other"}},
                       Dict{{"path", "/opt/cli"}, {"identifier", kApp}, {"teamIdentifier", kTeam}}});
  const std::string invalid = registry + " is not a valid list of clients.";
  const std::pair<std::string, std::optional<std::string>> rows[] = {
      {registry + " does not exist.", std::nullopt},
      {"/opt/cli", listed},
      {"/opt/cli (pid 42) is not a trusted client.", one({{"path", "/opt/cli2"}, {"identifier", kApp}})},
      {"/opt/cli (pid 42) is not trusted with the identity " + kApp + " of team " + kTeam + ".",
       one({{"path", "/opt/cli"}, {"identifier", kApp + ".x"}, {"teamIdentifier", kTeam}})},
      {invalid, listed + std::string(1 << 20, ' ')},
      {invalid, "not a property list"},
      {invalid, xml(Dict{})},
      {invalid, one({{"path", "opt/cli"}, {"identifier", kApp}})},
      {invalid, one({{"path", "/opt/cli"}})},
      {invalid, one({{"path", "/opt/cli"}, {"identifier", kApp}, {"teamIdentifier", true}})},
      {invalid, one({{"path", "/opt/cli"}, {"identifier", kApp}, {"team", kTeam}})},
  };
  for (const auto& [expected, content] : rows) {
    SCOPED_TRACE(content.value_or("no registry").substr(0, 300));
    fs::remove(path);
    if (content) writeRaw(path, *content, fs::perms(0644));
    EXPECT_EQ(outcome<PeerCheckError>([&] { return verifier.verify(-1).path; }), expected);
  }
  writeRaw(path, listed, fs::perms(0664));
  EXPECT_EQ(outcome<PeerCheckError>([&] { verifier.verify(-1); }),
            registry + " is not safe: " + path + " is writable by group or others.");
}

// Each row starts a probe that connects to us, spoils it, then inspects it. A spoiling
// step that reaps the probe sets its pid to -1; %d in the text stands for the pid.
// An executable others may write is refused end to end by helper_daemon_test.
TEST(ProcPeerInspectorTest, AdmitsOnlyALiveProcessRunningItsSafeExecutable) {
  const TemporaryDirectory temp;
  const std::string exe = (temp.path() / "probe").string();
  const std::string socket = (temp.path() / "socket").string();
  const UniqueFd listener = openListeningSocket(socket);
  const long descriptorsBefore = entryCount();
  const std::string ofExe = "The executable of process %d, " + exe;
  const std::tuple<const char*, std::function<void(pid_t&)>, std::string> cases[] = {
      {"running", [](pid_t&) {}, "%d " + fs::canonical(temp.path()).string() + "/probe"},
      {"exited, not reaped",
       [](pid_t& pid) { ::kill(pid, SIGKILL), ::waitid(P_PID, pid, nullptr, WEXITED | WNOWAIT); },
       "Process %d has exited."},
      {"exited and reaped",
       [](pid_t& pid) { ::kill(pid, SIGKILL), ::waitpid(std::exchange(pid, -1), nullptr, 0); },
       "Process %d has exited."},
      {"replaced", [&](pid_t&) { fs::copy_file(exe, exe + ".new"), fs::rename(exe + ".new", exe); },
       ofExe + " (deleted), was deleted or replaced since it was started."},
  };
  const auto inspector = makeProcPeerInspector(::getuid());
  for (const auto& [name, spoil, expected] : cases) {
    SCOPED_TRACE(name);
    fs::copy_file(HARBORKEEPER_PEER_PROBE, exe, fs::copy_options::overwrite_existing);
    fs::permissions(exe, fs::perms(0755));
    pid_t pid = ::fork();
    if (pid == 0) ::execl(exe.c_str(), exe.c_str(), socket.c_str(), nullptr), ::_exit(127);
    pollfd pending{listener.get(), POLLIN, 0};
    const UniqueFd connection(
        ::poll(&pending, 1, 10'000) == 1 ? ::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC) : -1);
    const pid_t started = pid;
    spoil(pid);
    EXPECT_EQ(outcome<PeerCheckError>([&] {
                const PeerExecutable admitted = inspector->inspect(connection.get());
                return std::to_string(admitted.pid) + " " + admitted.path;
              }),
              text::replacingOccurrences(expected, "%d", std::to_string(started)));
    if (pid > 0) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
  }
  EXPECT_EQ(entryCount(), descriptorsBefore);
}

}  // namespace
}  // namespace harborkeeper
