// Phone approval end to end: the built CLI against a stand-in middleware over
// HTTPS, trusted through a private test CA. The stand-in checks every HMAC and
// device signature itself and records each check that fails.
#include <fstream>
#include <memory>
#include <set>
#include <tuple>

#include <gtest/gtest.h>

#include "core/foundation/json.h"
#include "core/platform/command_runner.h"
#include "core/platform/state_file_test_support.h"

#include "tests/integration/child_process.h"
#include "tests/integration/process_scan.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using Outcome = std::tuple<int, std::string, std::string>;  // exit code, standard output, standard error

CommandResult runTool(const std::string& tool, const std::vector<std::string>& arguments) {
  CommandResult result = CommandRunner(30).run(tool, arguments);
  EXPECT_EQ(result.exitCode, 0) << tool << ": " << result.standardError;
  return result;
}

// A test CA, a certificate for 127.0.0.1 it signed, and one for the same
// address that it does not vouch for.
struct TestCertificates {
  explicit TestCertificates(const fs::path& dir) : dir(dir) {
    const std::vector<std::string> newKey = {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                                             "-nodes"};
    const auto request = [&](std::vector<std::string> arguments) {
      arguments.insert(arguments.begin() + 1, newKey.begin(), newKey.end());
      runTool(HARBORKEEPER_OPENSSL, arguments);
    };
    request({"req", "-x509", "-keyout", dir / "ca.key", "-out", dir / "ca.pem", "-days", "2", "-subj",
             "/CN=Test CA", "-addext", "basicConstraints=critical,CA:TRUE", "-addext",
             "keyUsage=critical,keyCertSign,cRLSign"});
    request({"req", "-x509", "-CA", dir / "ca.pem", "-CAkey", dir / "ca.key", "-keyout", dir / "server.key",
             "-out", dir / "server.pem", "-days", "2", "-subj", "/CN=127.0.0.1", "-addext",
             "subjectAltName=IP:127.0.0.1", "-addext", "extendedKeyUsage=serverAuth"});
    request({"req", "-x509", "-keyout", dir / "rogue.key", "-out", dir / "rogue.pem", "-days", "2", "-subj",
             "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1"});
  }
  fs::path dir;
};

// One stand-in process with a directory of its own.
class Middleware final {
 public:
  Middleware(const fs::path& dir, const fs::path& certificates, const std::string& certificate,
             const std::string& prefix = "")
      : dir_(dir) {
    fs::create_directories(dir);
    process_ = ChildProcess(
        {HARBORKEEPER_PYTHON3, std::string(HARBORKEEPER_TEST_TOOLS_DIR) + "/approval_middleware.py", "--dir",
         dir, "--cert", certificates / (certificate + ".pem"), "--key", certificates / (certificate + ".key"),
         "--prefix", prefix},
        dir / "server.log", false);
    EXPECT_TRUE(eventually([&] { return fs::exists(dir / "port"); }, 10s)) << contentOf(dir / "server.log");
    base_ = "https://127.0.0.1:" + contentOf(dir / "port");
  }

  // "https://127.0.0.1:PORT" followed by `path`.
  [[nodiscard]] std::string url(const std::string& path = "") const { return base_ + path; }
  [[nodiscard]] std::vector<json::Json> requests() const {
    std::vector<json::Json> logged;
    std::ifstream lines(dir_ / "requests.jsonl");
    for (std::string line; std::getline(lines, line);) logged.push_back(json::parse(line));
    return logged;
  }
  [[nodiscard]] std::string raw() const { return contentOf(dir_ / "requests.jsonl"); }
  [[nodiscard]] std::string faults() const { return contentOf(dir_ / "faults.log"); }
  [[nodiscard]] std::string handshakes() const { return contentOf(dir_ / "handshakes.log"); }
  // The next request, whatever it is, gets this answer.
  void answerNext(const json::Json& answer) const { writeRaw(dir_ / "next.json", json::serialize(answer)); }

 private:
  fs::path dir_;
  std::string base_;
  ChildProcess process_;
};

class PhoneApprovalTest : public ::testing::Test {
 protected:
  void SetUp() override {
    middleware = std::make_unique<Middleware>(dir / "middleware", dir, "server");
    config = dir / "approval.json";
  }
  void TearDown() override { EXPECT_EQ(middleware->faults(), ""); }

  Outcome cli(std::vector<std::string> arguments, const fs::path& settings) {
    arguments.insert(arguments.begin(),
                     {"--profiles", dir / "profiles.json", "approval", "--approval-config", settings});
    const CommandResult result = CommandRunner(30).run(fs::canonical(HARBORKEEPER_CLI_BIN), arguments);
    outputs += result.standardOutput + result.standardError;
    return {result.exitCode, result.standardOutput, result.standardError};
  }
  Outcome cli(const std::vector<std::string>& arguments) { return cli(arguments, config); }
  json::Json cliJson(const std::vector<std::string>& arguments) {
    const auto [status, out, err] = cli(arguments);
    EXPECT_EQ(status, 0) << err;
    return json::parse(out);
  }
  [[nodiscard]] std::string secret() const { return json::parse(contentOf(config))["listenerSecret"]; }

  Outcome registerListener(const std::string& endpoint) {
    return cli(
        {"register", "--endpoint", endpoint, "--name", "Studio", "--ca-file", dir / "ca.pem", "--replace"});
  }

  const TemporaryDirectory directory;
  const fs::path dir = directory.path();
  const TestCertificates certificates{dir};
  std::unique_ptr<Middleware> middleware;
  fs::path config;
  std::string outputs;  // everything every command printed
};

TEST_F(PhoneApprovalTest, PairsADeviceAndCarriesRequestsToApprovalAndDenial) {
  std::unique_ptr<ProcessScan> scan;
  const auto [registered, said, registerError] = registerListener(middleware->url());
  ASSERT_EQ(registered, 0) << registerError;
  ASSERT_TRUE(said.starts_with("Registered listener lst_")) << said;
  scan = std::make_unique<ProcessScan>(secret(), "approval");

  const auto [paired, token, pairingError] = cli({"pairing-token", "--name", "Anna's phone"});
  EXPECT_EQ(paired, 0) << pairingError;
  EXPECT_TRUE(token.starts_with("pt_") && token.find('\n') == std::string::npos)
      << token;  // no QR off a terminal

  const std::string key = dir / "device.pem";
  const json::Json jwk = cliJson({"device", "init", "--key", key});
  EXPECT_EQ(jwk["crv"], "P-256");
  const std::string device = cliJson(
      {"device", "register", "--name", "Anna", "--apns-token", "apns-1", "--key", key, "--json"})["deviceId"];
  EXPECT_EQ(cliJson({"devices", "--json"})["devices"][0]["deviceId"], device);
  EXPECT_EQ(cli({"rename", device, "Anna's iPad"}),
            Outcome(0, "Renamed device " + device + " to Anna's iPad.", ""));
  EXPECT_EQ(std::get<0>(cli({"test-notification"})), 0);

  const CommandResult added =
      CommandRunner(30).run(fs::canonical(HARBORKEEPER_CLI_BIN),
                            {"--profiles", dir / "profiles.json", "profile", "add", "--name", "mini",
                             "--host", "mini.local", "--user", "admin", "--approval", "phone"});
  ASSERT_EQ(added.exitCode, 0) << added.standardError;
  struct Round {
    std::string decision;
    Outcome waited;
  };
  for (const Round& round : {Round{"approve", {0, "", ""}}, Round{"deny", {1, "", ""}}}) {
    SCOPED_TRACE(round.decision);
    const json::Json asked = cliJson({"request", "mini", "--ttl", "120", "--json"});
    const std::string id = asked["requestId"];
    EXPECT_EQ(asked["macName"], "mini");
    EXPECT_EQ(cliJson({"read", id, "--json"})["status"], "pending");
    const json::Json decided =
        cliJson({"device", "decide", id, round.decision, "--device-id", device, "--key", key, "--json"});
    EXPECT_EQ(decided["status"], round.decision == "approve" ? "approved" : "denied");
    if (round.decision == "approve") {
      EXPECT_EQ(cli({"wait", id}), Outcome(0, "Request " + id + " was approved.", ""));
      EXPECT_EQ(cliJson({"consume", id, "--json"})["status"], "consumed");
      EXPECT_EQ(cli({"wait", id}), Outcome(1, "", "harborkeeper: Request " + id + " was already consumed."));
    } else {
      EXPECT_EQ(cli({"wait", id}), Outcome(1, "", "harborkeeper: Request " + id + " was denied."));
      EXPECT_EQ(cli({"consume", id}),
                Outcome(1, "", "harborkeeper: Phone approval middleware returned HTTP 409."));
    }
  }
  EXPECT_EQ(cli({"revoke", device}), Outcome(0, "Revoked device " + device + ".", ""));
  EXPECT_EQ(cli({"devices"}), Outcome(0, "", "No paired devices."));

  const ProcessScan::Findings findings = scan->finish();
  EXPECT_EQ(findings.leaks, std::set<std::string>{});
  EXPECT_FALSE(findings.witnessed.empty()) << "the scan never saw a command run";
  EXPECT_EQ(outputs.find(secret()), std::string::npos);
  EXPECT_EQ(middleware->raw().find(secret()), std::string::npos);
}

// Blank credentials, refused before anything is sent, are the client's own test.
TEST_F(PhoneApprovalTest, FailuresSayWhatWentWrong) {
  ASSERT_EQ(std::get<0>(registerListener(middleware->url() + "/")), 0);
  struct Case {
    json::Json answer;
    std::string error;
  };
  const Case cases[] = {
      {{{"status", 204}, {"body", ""}}, "could not be read: The response is not JSON."},
      {{{"status", 300}, {"body", "{}"}}, "Phone approval middleware returned HTTP 300."},
      {{{"status", 200}, {"oversize", 2 << 20}}, "could not be read: The response is larger than 1 MiB."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.error);
    middleware->answerNext(c.answer);
    const auto [status, out, error] = cli({"devices"});
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(error.starts_with("harborkeeper: Phone approval middleware") && error.ends_with(c.error))
        << error;
  }

  json::Json closed = json::parse(contentOf(config));
  closed["endpointURL"] = "https://127.0.0.1:1/";
  writeRaw(dir / "closed.json", json::serialize(closed));
  const auto [status, out, error] = cli({"devices"}, dir / "closed.json");
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(
      error.starts_with("harborkeeper: Phone approval middleware could not be reached: could not connect"))
      << error;
  EXPECT_EQ(outputs.find(secret()), std::string::npos);
}

TEST_F(PhoneApprovalTest, AServerTheCADoesNotVouchForIsRefusedBeforeAnyRequest) {
  const Middleware rogue(dir / "rogue", dir, "rogue");
  const auto [status, out, error] = registerListener(rogue.url("/"));
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(
      error.starts_with("harborkeeper: Phone approval middleware could not be reached: the server's "
                        "certificate could not be verified"))
      << error;
  EXPECT_EQ(rogue.raw(), "");
  EXPECT_NE(rogue.handshakes(), "");
  EXPECT_FALSE(fs::exists(config));
}

// Relative resolution: a base path without its final "/" loses its last segment.
TEST_F(PhoneApprovalTest, ABasePathKeepsItsLastSegmentOnlyWithATrailingSlash) {
  const Middleware prefixed(dir / "prefixed", dir, "server", "/api");
  EXPECT_EQ(registerListener(prefixed.url("/api")),
            Outcome(1, "", "harborkeeper: Phone approval middleware returned HTTP 404."));
  EXPECT_EQ(prefixed.requests().back()["path"], "/v1/listeners");
  EXPECT_EQ(std::get<0>(registerListener(prefixed.url("/api/extra"))), 0);
  EXPECT_EQ(prefixed.requests().back()["path"], "/api/v1/listeners");
  // The signed path is the one without the base's path, and the stand-in checks it.
  EXPECT_EQ(std::get<0>(cli({"devices"})), 0);
  EXPECT_TRUE(std::string(prefixed.requests().back()["path"]).starts_with("/api/v1/listeners/"));
  EXPECT_EQ(prefixed.faults(), "");
}

}  // namespace
}  // namespace harborkeeper
