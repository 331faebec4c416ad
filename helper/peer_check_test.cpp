#include "helper/peer_check.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "core/foundation/plist.h"
#include "core/foundation/text.h"
#include "core/platform/state_file_test_support.h"
#include "core/platform/unique_fd.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using Kind = PeerCheckError::Kind;
using Clients = std::vector<TrustedClient>;
using Dict = plist::Dictionary;

const std::string kApp = "com.lumaq.Harborkeeper", kTeam = "K4T8QW17ZD";

std::string xml(const plist::Value& value) { return toString(plist::encode(value, plist::Format::xml)); }

// The kind and text of the refusal; nullopt and "" when `f` passes.
template <class F>
std::pair<std::optional<Kind>, std::string> refusal(F&& f) {
  try {
    f();
  } catch (const PeerCheckError& error) {
    return {error.kind(), error.what()};
  }
  return {std::nullopt, ""};
}

TEST(TrustedClientRegistryTest, DecodesXmlAndBinaryAndOmitsAnAbsentTeam) {
  const Clients clients = {{"/usr/bin/harborkeeper", {kApp, kTeam}}, {"/opt/b", {"other", std::nullopt}}};
  const std::string literal =
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><array><dict><key>path</key><string>/usr/bin/"
      "harborkeeper</string><key>identifier</key><string>com.lumaq.Harborkeeper</string><key>teamIdentifier"
      "</key><string>K4T8QW17ZD</string></dict><dict><key>identifier</key><string>other</string><key>path"
      "</key><string>/opt/b</string></dict></array></plist>";
  const std::string encoded = encodeTrustedClientRegistry(clients);
  EXPECT_EQ(encoded.find("teamIdentifier"), encoded.rfind("teamIdentifier"));
  for (const std::string& document :
       {literal, encoded, toString(plist::encode(plist::decode(literal), plist::Format::binary))}) {
    EXPECT_EQ(decodeTrustedClientRegistry(document, "/r"), clients);
  }
}

TEST(TrustedClientRegistryTest, RefusesEveryOtherShape) {
  const std::string rows[] = {
      "",
      "not a property list",
      xml(Dict{}),
      xml("/usr/bin/harborkeeper"),
      xml(plist::Array{"/usr/bin/harborkeeper"}),
      xml(plist::Array{Dict{{"identifier", kApp}}}),
      xml(plist::Array{Dict{{"path", 1}, {"identifier", kApp}}}),
      xml(plist::Array{Dict{{"path", "bin/harborkeeper"}, {"identifier", kApp}}}),
      xml(plist::Array{Dict{{"path", "/bin/x"}}}),
      xml(plist::Array{Dict{{"path", "/bin/x"}, {"identifier", kApp}, {"teamIdentifier", true}}}),
      xml(plist::Array{Dict{{"path", "/bin/x"}, {"identifier", kApp}, {"teamIdentifer", kTeam}}}),
  };
  for (const std::string& row : rows) {
    SCOPED_TRACE(row);
    EXPECT_EQ(refusal([&] { decodeTrustedClientRegistry(row, "/r.plist"); }),
              std::pair(std::optional(Kind::registryInvalid),
                        std::string("The trusted-client registry /r.plist is not a valid list of clients.")));
  }
}

TEST(TrustedClientRegistryTest, LoadsOnlyASafeFileOfAtMostOneMebibyte) {
  const TemporaryDirectory temp;
  const std::string path = (temp.path() / "clients.plist").string();
  const std::string prefix = "The trusted-client registry ";
  const std::string good = encodeTrustedClientRegistry({{"/bin/x", {kApp, kTeam}}});
  const std::string padded = good + std::string(std::size_t{1} << 20, ' ');
  ASSERT_EQ(decodeTrustedClientRegistry(padded, path).size(), 1u);
  const std::tuple<std::optional<std::string>, unsigned, std::optional<Kind>, std::string> cases[] = {
      {good, 0644, std::nullopt, ""},
      {std::nullopt, 0644, Kind::registryMissing, prefix + path + " does not exist."},
      {good, 0664, Kind::registryInsecure,
       prefix + path + " is not safe: " + path + " is writable by group or others."},
      {padded, 0644, Kind::registryInvalid, prefix + path + " is not a valid list of clients."},
  };
  for (const auto& [content, mode, kind, message] : cases) {
    SCOPED_TRACE(message);
    fs::remove(path);
    if (content) writeRaw(path, *content, fs::perms(mode));
    EXPECT_EQ(refusal([&] { EXPECT_EQ(loadTrustedClientRegistry(path, ::getuid()).size(), 1u); }),
              std::pair(kind, message));
  }
}

class FakeInspector final : public PeerInspector {
 public:
  PeerExecutable inspect(int) const override { return {42, "/opt/cli"}; }
};

TEST(PeerVerifierTest, AdmitsRunTrustedThenRegistryEntriesWithTheAppIdentity) {
  const TemporaryDirectory temp;
  const std::string registry = (temp.path() / "clients.plist").string();
  const std::string listedOther =
      "/opt/cli (pid 42) is not trusted with the identity " + kApp + " of team " + kTeam + ".";
  const std::tuple<const char*, std::optional<Clients>, Clients, std::optional<Kind>, std::string> cases[] = {
      {"run-trusted, no registry", std::nullopt, {PeerVerifier::trustedAsApp("/opt/cli")}, std::nullopt, ""},
      {"listed", Clients{{"/opt/cli", {kApp, kTeam}}}, {}, std::nullopt, ""},
      {"not listed",
       Clients{{"/opt/cli2", {kApp, kTeam}}},
       {PeerVerifier::trustedAsApp("/opt")},
       Kind::notTrusted,
       "/opt/cli (pid 42) is not a trusted client."},
      {"registry missing",
       std::nullopt,
       {PeerVerifier::trustedAsApp("/opt/other")},
       Kind::registryMissing,
       "The trusted-client registry " + registry + " does not exist."},
      {"listed without team", Clients{{"/opt/cli", {kApp, std::nullopt}}}, {}, Kind::notTrusted, listedOther},
      {"listed as another app",
       Clients{{"/opt/cli", {kApp + ".Other", kTeam}}},
       {},
       Kind::notTrusted,
       listedOther},
  };
  for (const auto& [name, clients, runTrusted, kind, message] : cases) {
    SCOPED_TRACE(name);
    fs::remove(registry);
    if (clients) writeRaw(registry, encodeTrustedClientRegistry(*clients), fs::perms(0644));
    const PeerVerifier verifier(registry, runTrusted, std::make_unique<FakeInspector>(), ::getuid());
    EXPECT_EQ(refusal([&] { EXPECT_EQ(verifier.verify(-1).path, "/opt/cli"); }), std::pair(kind, message));
  }
  // Every check reads the registry again, and refuses an unsafe one.
  const PeerVerifier verifier(registry, {}, std::make_unique<FakeInspector>(), ::getuid());
  writeRaw(registry, encodeTrustedClientRegistry({{"/opt/cli", {kApp, kTeam}}}), fs::perms(0644));
  EXPECT_NO_THROW(verifier.verify(-1));
  fs::permissions(registry, fs::perms(0666));
  EXPECT_EQ(refusal([&] { verifier.verify(-1); }).first, Kind::registryInsecure);
}

// A probe process and our end of its connection; reaped at the latest when it goes.
struct Peer {
  pid_t pid = -1;
  UniqueFd connection;
  void reap() {
    if (pid > 0) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
    pid = -1;
  }
  ~Peer() { reap(); }
};

struct ProcPeerInspectorTest : testing::Test {
  void SetUp() override {
    fs::create_directory(exe_.parent_path());
    fs::permissions(exe_.parent_path(), fs::perms(0755));
    fs::copy_file(HARBORKEEPER_PEER_PROBE, exe_);
    fs::permissions(exe_, fs::perms(0755));
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::strncpy(address.sun_path, socket_.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener_.get(), 1), 0);
  }
  void TearDown() override { EXPECT_EQ(entryCount(), descriptorsBefore_); }

  void connect(Peer& peer) const {
    const std::string program = exe_.string();
    const std::string socket = socket_.string();
    char* argv[] = {const_cast<char*>(program.c_str()), const_cast<char*>(socket.c_str()), nullptr};
    ASSERT_EQ(::posix_spawn(&peer.pid, argv[0], nullptr, nullptr, argv, environ), 0);
    pollfd pending{listener_.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&pending, 1, 10'000), 1) << "the probe did not connect";
    peer.connection.reset(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_TRUE(peer.connection);
  }

  const TemporaryDirectory temp_;
  const fs::path exe_ = temp_.path() / "bin" / "probe", socket_ = temp_.path() / "socket";
  const UniqueFd listener_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  const long descriptorsBefore_ = entryCount();
};

TEST_F(ProcPeerInspectorTest, AdmitsOnlyALiveProcessRunningItsSafeExecutable) {
  const std::string exe = exe_.string();
  const std::string gone = ", was deleted or replaced since it was started.";
  const auto replace = [&] {
    fs::copy_file(HARBORKEEPER_PEER_PROBE, exe + ".new");
    fs::rename(exe + ".new", exe);
  };
  // The spoiling step gets the peer; %d in the expected text stands for its pid.
  const std::tuple<const char*, std::function<void(Peer&)>, std::optional<Kind>, std::string> cases[] = {
      {"running", [](Peer&) {}, std::nullopt, ""},
      {"exited, not reaped",
       [](Peer& peer) {
         siginfo_t info{};
         ::kill(peer.pid, SIGKILL), ::waitid(P_PID, peer.pid, &info, WEXITED | WNOWAIT);
       },
       Kind::peerUnknown, "Process %d has exited."},
      {"exited and reaped", [](Peer& peer) { peer.reap(); }, Kind::peerUnknown, "Process %d has exited."},
      {"deleted", [&](Peer&) { fs::remove(exe); }, Kind::executableGone,
       "The executable of process %d, " + exe + " (deleted)" + gone},
      {"replaced", [&](Peer&) { replace(); }, Kind::executableGone,
       "The executable of process %d, " + exe + " (deleted)" + gone},
      {"group-writable", [&](Peer&) { fs::permissions(exe, fs::perms(0775)); }, Kind::executableInsecure,
       "The executable of process %d, " + exe + ", is not safe: " + exe + " is writable by group or others."},
  };
  const auto inspector = makeProcPeerInspector(::getuid());
  for (const auto& [name, spoil, kind, message] : cases) {
    SCOPED_TRACE(name);
    if (!fs::exists(exe)) fs::copy_file(HARBORKEEPER_PEER_PROBE, exe);
    fs::permissions(exe, fs::perms(0755));
    Peer peer;
    ASSERT_NO_FATAL_FAILURE(connect(peer));
    const pid_t pid = peer.pid;
    spoil(peer);
    const auto [refusedAs, text] = refusal([&] {
      const PeerExecutable admitted = inspector->inspect(peer.connection.get());
      EXPECT_TRUE(admitted.pid == pid && admitted.path == fs::canonical(exe_).string());
    });
    EXPECT_EQ(refusedAs, kind);
    EXPECT_EQ(text, text::replacingOccurrences(message, "%d", std::to_string(pid)));
  }
}

}  // namespace
}  // namespace harborkeeper
