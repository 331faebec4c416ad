#include "helper/peer_check.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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
using Kind = PeerCheckError::Kind;
using Dict = plist::Dictionary;
using Refusal = std::pair<std::optional<Kind>, std::string>;

const std::string kApp = "com.lumaq.Harborkeeper", kTeam = "K4T8QW17ZD";

std::string xml(const plist::Value& value) { return toString(plist::encode(value, plist::Format::xml)); }

// The kind and text of the E that `f` throws; nullopt and "" when it passes.
template <class E = PeerCheckError, class F>
std::pair<std::optional<typename E::Kind>, std::string> refusal(F&& f) {
  try {
    f();
  } catch (const E& error) {
    return {error.kind(), error.what()};
  }
  return {std::nullopt, ""};
}

// Each file holds its own relative name, so an opened one shows which file it is.
TEST(OpenSecurelyTest, OpensOnlyThroughSafeDirectoriesAndRefusesEveryUnsafeStep) {
  using PathKind = SecurePathError::Kind;
  const long descriptorsBefore = entryCount();
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
  const std::tuple<std::string, uid_t, std::optional<PathKind>, std::string> cases[] = {
      {file, me, std::nullopt, "dir/file"},
      {top + "//sticky/file", me, std::nullopt, "sticky/file"},
      {top + "/dir/shared", me, PathKind::insecure, top + "/dir/shared is writable by group or others."},
      {top + "/open/file", me, PathKind::insecure, top + "/open is writable by group or others."},
      {top + "/foreign/file", me, PathKind::insecure, top + "/foreign is not owned by root."},
      {file, me + 1, PathKind::insecure, notOther},
      {top + "/dir/link", me, PathKind::link, top + "/dir/link is a symbolic link."},
      {top + "/linked/file", me, PathKind::link, top + "/linked is a symbolic link."},
      {top + "/dir/none", me, PathKind::missing, top + "/dir/none does not exist."},
      {top + "/dir/sub", me, PathKind::insecure, top + "/dir/sub is not a regular file."},
      {"tmp/file", me, PathKind::notAbsolute, "tmp/file is not an absolute path."},
      {top + "/dir/../dir/file", me, PathKind::notAbsolute,
       top + R"(/dir/../dir/file contains a "." or ".." component.)"},
  };
  for (const auto& [path, owner, kind, message] : cases) {
    SCOPED_TRACE(path + " for uid " + std::to_string(owner));
    if (me != 0 && path.ends_with("foreign/file")) continue;
    struct stat status {};
    std::string content(64, '\0');
    // Bindings are passed by name: clang 14 cannot capture them.
    EXPECT_EQ(refusal<SecurePathError>([&, &path = path, owner = owner] {
                const UniqueFd fd = openSecurely(path, owner, &status);
                content.resize(std::size_t(std::max<ssize_t>(0, ::read(fd.get(), content.data(), 64))));
              }),
              std::pair(kind, kind ? message : ""));
    EXPECT_TRUE(kind ||
                (content == message && S_ISREG(status.st_mode) && status.st_size == off_t(content.size())));
  }
  EXPECT_EQ(entryCount(), descriptorsBefore);
}

struct FakeInspector final : PeerInspector {
  PeerExecutable inspect(int) const override { return {42, "/opt/cli"}; }
};

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
  const auto one = [&](const Dict& client) { return xml(plist::Array{client}); };
  const auto listing = [](const std::string& exe, const std::string& app, std::optional<std::string> team) {
    return encodeTrustedClientRegistry({{exe, {app, std::move(team)}}});
  };
  const plist::Value document =
      plist::Array{Dict{{"path", "/opt/b"}, {"identifier", "other"}},
                   Dict{{"path", "/opt/cli"}, {"identifier", kApp}, {"teamIdentifier", kTeam}}};
  const Refusal invalid(Kind::registryInvalid, registry + " is not a valid list of clients.");
  const Refusal otherIdentity(Kind::notTrusted, "/opt/cli (pid 42) is not trusted with the identity " + kApp +
                                                    " of team " + kTeam + ".");
  const std::pair<Refusal, std::optional<std::string>> rows[] = {
      {{Kind::registryMissing, registry + " does not exist."}, std::nullopt},
      {{}, xml(document)},
      {{}, toString(plist::encode(document, plist::Format::binary))},
      {{}, listing("/opt/cli", kApp, kTeam)},
      {{Kind::notTrusted, "/opt/cli (pid 42) is not a trusted client."}, listing("/opt/cli2", kApp, kTeam)},
      {otherIdentity, listing("/opt/cli", kApp, std::nullopt)},
      {otherIdentity, listing("/opt/cli", kApp + ".x", kTeam)},
      {invalid, xml(document) + std::string(1 << 20, ' ')},
      {invalid, "not a property list"},
      {invalid, xml(Dict{})},
      {invalid, xml(plist::Array{"/opt/cli"})},
      {invalid, one({{"identifier", kApp}})},
      {invalid, one({{"path", 1}, {"identifier", kApp}})},
      {invalid, one({{"path", "opt/cli"}, {"identifier", kApp}})},
      {invalid, one({{"path", "/opt/cli"}})},
      {invalid, one({{"path", "/opt/cli"}, {"identifier", kApp}, {"teamIdentifier", true}})},
  };
  for (const auto& [expected, content] : rows) {
    SCOPED_TRACE(content.value_or("no registry").substr(0, 300));
    fs::remove(path);
    if (content) writeRaw(path, *content, fs::perms(0644));
    EXPECT_EQ(refusal([&] { EXPECT_EQ(verifier.verify(-1).path, "/opt/cli"); }), expected);
  }
  writeRaw(path, xml(document), fs::perms(0664));
  EXPECT_EQ(refusal([&] { verifier.verify(-1); }),
            Refusal(Kind::registryInsecure,
                    registry + " is not safe: " + path + " is writable by group or others."));
}

// Each row starts a probe that connects to us, spoils it, then inspects it.
TEST(ProcPeerInspectorTest, AdmitsOnlyALiveProcessRunningItsSafeExecutable) {
  const TemporaryDirectory temp;
  const std::string exe = (temp.path() / "probe").string();
  const std::string socket = (temp.path() / "socket").string();
  const UniqueFd listener = openListeningSocket(socket);
  const long descriptorsBefore = entryCount();
  const std::string ofExe = "The executable of process %d, " + exe;
  const std::string gone = ofExe + " (deleted), was deleted or replaced since it was started.";
  // A spoiling step that reaps the probe sets its pid to -1; %d in the text stands for the pid.
  const std::tuple<const char*, std::function<void(pid_t&)>, Refusal> cases[] = {
      {"running", [](pid_t&) {}, Refusal()},
      {"exited, not reaped",
       [](pid_t& pid) { ::kill(pid, SIGKILL), ::waitid(P_PID, pid, nullptr, WEXITED | WNOWAIT); },
       Refusal(Kind::peerUnknown, "Process %d has exited.")},
      {"exited and reaped",
       [](pid_t& pid) { ::kill(pid, SIGKILL), ::waitpid(std::exchange(pid, -1), nullptr, 0); },
       Refusal(Kind::peerUnknown, "Process %d has exited.")},
      {"deleted", [&](pid_t&) { fs::remove(exe); }, Refusal(Kind::executableGone, gone)},
      {"replaced", [&](pid_t&) { fs::copy_file(exe, exe + ".new"), fs::rename(exe + ".new", exe); },
       Refusal(Kind::executableGone, gone)},
      {"group-writable", [&](pid_t&) { fs::permissions(exe, fs::perms(0775)); },
       Refusal(Kind::executableInsecure,
               ofExe + ", is not safe: " + exe + " is writable by group or others.")},
  };
  const auto inspector = makeProcPeerInspector(::getuid());
  for (const auto& [name, spoil, expected] : cases) {
    SCOPED_TRACE(name);
    if (!fs::exists(exe)) fs::copy_file(HARBORKEEPER_PEER_PROBE, exe);
    fs::permissions(exe, fs::perms(0755));
    const char* argv[] = {exe.c_str(), socket.c_str(), nullptr};
    pid_t pid = -1;
    ASSERT_EQ(::posix_spawn(&pid, argv[0], nullptr, nullptr, const_cast<char**>(argv), environ), 0);
    pollfd pending{listener.get(), POLLIN, 0};
    const UniqueFd connection(
        ::poll(&pending, 1, 10'000) == 1 ? ::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC) : -1);
    const pid_t started = pid;
    spoil(pid);
    const Refusal refused = refusal([&] {
      const PeerExecutable admitted = inspector->inspect(connection.get());
      EXPECT_TRUE(admitted.pid == started && admitted.path == fs::canonical(exe).string());
    });
    EXPECT_EQ(refused, Refusal(expected.first,
                               text::replacingOccurrences(expected.second, "%d", std::to_string(started))));
    if (pid > 0) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
  }
  EXPECT_EQ(entryCount(), descriptorsBefore);
}

}  // namespace
}  // namespace harborkeeper
