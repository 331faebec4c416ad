#pragma once

#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "core/recovery/recovery_profile.h"

namespace harborkeeper {

// what() names the file and, for a profile that does not decode, which one
// and the key: "<file>: profile 2: ...".
class RecoveryProfileStoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The operator's list of profiles: one JSON array in one file, written
// atomically (temporary file, fsync, rename, fsync of the directory) with mode
// 0600 in a directory created 0700. Members of a stored profile this version
// does not know are kept when the list is saved again, so an older build never
// drops what a newer one wrote.
class RecoveryProfileStore final {
 public:
  explicit RecoveryProfileStore(std::filesystem::path file);

  // $XDG_CONFIG_HOME/harborkeeper/profiles.json when XDG_CONFIG_HOME is an
  // absolute path, else $HOME/.config/harborkeeper/profiles.json, else the
  // home directory of the user from the password database.
  static std::filesystem::path defaultPath();

  [[nodiscard]] const std::filesystem::path& file() const { return file_; }

  // A missing file is an empty list. Anything else that cannot be read or
  // decoded (not an array, a profile that does not decode, two profiles with
  // one id) throws RecoveryProfileStoreError and changes nothing.
  [[nodiscard]] std::vector<RecoveryProfile> load() const;
  // Throws RecoveryProfileStoreError; on failure the previous file is intact.
  void save(const std::vector<RecoveryProfile>& profiles) const;

  // The profile whose macName equals `nameOrId` exactly, else the one whose id
  // equals it ignoring case; nullptr when none.
  static const RecoveryProfile* find(const std::vector<RecoveryProfile>& profiles, std::string_view nameOrId);
  static RecoveryProfile* find(std::vector<RecoveryProfile>& profiles, std::string_view nameOrId);

 private:
  std::filesystem::path file_;
};

}  // namespace harborkeeper
