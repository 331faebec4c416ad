// Whatever a sealed credential file unseals to, loading it gives the stored
// item or one of the two errors of a bad file; never a crash, another error,
// or an item with an empty account or a password that is not UTF-8.
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>

#include "core/foundation/text.h"
#include "helper/credential_store.h"

namespace {

using namespace harborkeeper;

// systemd-creds as the vault sees it: decrypt prints the fuzz input.
struct Unsealer final : CommandExecutor {
  CommandResult run(const std::string&, const std::vector<std::string>&, std::optional<std::string_view>,
                    std::optional<double>) const noexcept override {
    return {plaintext, "", 0, false};
  }
  std::string plaintext;
};

struct NoLog final : Logger {
  void log(LogLevel, std::string_view) noexcept override {}
};

// A private state directory holding a sealed file, for the life of the process.
struct StateDirectory {
  StateDirectory() {
    if (::mkdtemp(path.data()) == nullptr) std::abort();
    const std::string file = path + "/PersistentCredential.cred";
    std::ofstream(file) << "sealed\n";
    std::filesystem::permissions(file, std::filesystem::perms(0600));
  }
  ~StateDirectory() { std::filesystem::remove_all(path); }
  StateDirectory(const StateDirectory&) = delete;
  StateDirectory& operator=(const StateDirectory&) = delete;
  std::string path = "/tmp/fuzz-sealed-credential-XXXXXX";
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const StateDirectory directory;
  static NoLog logger;
  const auto unsealer = std::make_shared<Unsealer>();
  unsealer->plaintext.assign(reinterpret_cast<const char*>(data), size);
  CredentialStore store(
      std::make_shared<SystemdCredsVault>(directory.path, ::getuid(), "/bin/sh", unsealer, logger));
  try {
    const StoredCredential credential = store.load();
    if (credential.username.empty() || text::repairedUtf8(credential.password) != credential.password) {
      std::abort();
    }
  } catch (const CredentialStoreError& error) {
    const bool badFile = error.kind() == CredentialStoreError::Kind::invalidCredentialData ||
                         (error.kind() == CredentialStoreError::Kind::loadFailed && error.status() == -26275);
    if (!badFile) std::abort();
  }
  return 0;
}
