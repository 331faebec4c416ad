// Input: one byte of exit code (as signed), then standard output and standard
// error separated by a NUL. The tool's texts are repaired UTF-8, as the command
// runner delivers them. Whatever the parser makes must be well formed and
// survive the daemon's binary reply.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/foundation/text.h"
#include "core/protection/file_vault_users.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace harborkeeper;
  if (size == 0) return 0;
  const std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);
  const auto split = rest.find('\0');
  const std::string output = text::repairedUtf8(rest.substr(0, split));
  const std::string error = split == std::string_view::npos ? "" : text::repairedUtf8(rest.substr(split + 1));
  if (error.find('\0') != std::string::npos) return 0;
  const std::int32_t exitCode = data[0] < 0x80 ? data[0] : data[0] - 0x100;

  const FileVaultUserList list = SystemStatusService::parseFileVaultUsers(output, error, exitCode);
  if ((exitCode == 0) != list.isAvailable()) std::abort();
  if (!list.isAvailable() && (list.unavailableReason->empty() || !list.users.empty())) std::abort();
  for (const FileVaultUser& user : list.users) {
    if (user.displayName.empty() || text::trimmed(user.displayName) != user.displayName) std::abort();
    if (user.uuid && (user.uuid->empty() || text::trimmed(*user.uuid) != *user.uuid)) std::abort();
    if (user.displayName.find_first_of("\r\n,") != std::string::npos) std::abort();
  }
  (void)list.displayName(), (void)list.detail(), (void)json::serialize(list.toJson());
  if (FileVaultUserList::decode(toString(list.encodeBinaryPlist())) != list) std::abort();
  return 0;
}
