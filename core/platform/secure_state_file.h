#pragma once

#include <sys/types.h>

#include <cstddef>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "core/foundation/bytes.h"
#include "core/platform/state_file_security.h"

namespace harborkeeper {

// One private state file (root-owned, 0600) in one private directory
// (root-owned, 0700): the file layer that every daemon store is built on.
//
// Links are never followed: the directory is opened with O_NOFOLLOW and checked
// through its descriptor, and the file is reached relative to that descriptor,
// so an entry swapped for a link between a check and its use is refused rather
// than followed. Every operation re-checks; nothing is cached.
//
// Errors: HelperStateFileSecurityError for a check that fails, FileSystemError
// for a failed system call. Not synchronised: callers serialise their use.
class SecureStateFile final {
 public:
  // Files larger than this are refused on read.
  static constexpr std::size_t maximumFileSize = std::size_t{1} << 20;

  SecureStateFile(std::string directoryPath, std::string fileName,
                  uid_t expectedOwner = HelperStateFileSecurity::expectedOwnerAccountID);

  // Creates the directory (and missing parents, 0700) if needed, refuses a
  // directory that is a link, not a directory or owned by someone else, sets
  // it to 0700, replaces the file atomically with `bytes` at 0600 (a link at
  // the file's name is replaced, not followed), and checks both afterwards.
  // On failure no temporary file remains.
  void write(const Bytes& bytes) const;

  // Directory check, then file check. A missing item is a FileSystemError.
  void validate() const;

  // Whether any entry, a dangling link included, exists at the file's path.
  [[nodiscard]] bool exists() const;

  // Nothing when no entry exists; otherwise the checked file's bytes.
  [[nodiscard]] std::optional<Bytes> read() const;

  // False when no entry exists; otherwise checks, unlinks the file and returns
  // true. The directory stays.
  bool remove() const;

  [[nodiscard]] const std::string& directoryPath() const noexcept { return directoryPath_; }
  [[nodiscard]] const std::string& fileName() const noexcept { return fileName_; }
  [[nodiscard]] const std::string& filePath() const noexcept { return filePath_; }
  [[nodiscard]] uid_t expectedOwner() const noexcept { return expectedOwner_; }

  // Testing only: called with the path of the directory or file after its
  // path check and just before it is opened, so a test can swap the entry in
  // exactly that window.
  using OpenHook = std::function<void(const std::string& path)>;
  void setBeforeOpenHookForTesting(OpenHook hook) { beforeOpen_ = std::move(hook); }

 private:
  std::string directoryPath_;
  std::string fileName_;
  std::string filePath_;
  uid_t expectedOwner_;
  OpenHook beforeOpen_;
};

// The load and store halves of the five-error store pattern, so a store of one
// record only supplies its codec and its error values. `errors` must offer
//   missingFile(), insecureState(std::string), readFailed(std::string),
//   writeFailed(std::string), invalidValue(std::string)
// each returning the exception to throw. Typical use in a store:
//   Bytes bytes = record.encodeXml();            // encoder errors pass unchanged
//   secure_store::writeRecord(file_, bytes, Errors{});
//   return secure_store::loadRecord<MyStoreError>(file_, Errors{},
//       [](const Bytes& b) { return validated(MyRecord::decode(toString(b))); });
namespace secure_store {

// Every failure of the file layer, security checks included, becomes writeFailed.
template <class Errors>
void writeRecord(const SecureStateFile& file, const Bytes& bytes, const Errors& errors) {
  try {
    file.write(bytes);
  } catch (const std::exception& cause) {
    throw errors.writeFailed(cause.what());
  }
}

// Missing file -> missingFile; failed check -> insecureState; failed read ->
// readFailed; then `decode` (which also validates): StoreError passes as it is,
// anything else becomes invalidValue.
template <class StoreError, class Errors, class Decode>
auto loadRecord(const SecureStateFile& file, const Errors& errors, const Decode& decode) {
  std::optional<Bytes> bytes;
  try {
    bytes = file.read();
  } catch (const HelperStateFileSecurityError& cause) {
    throw errors.insecureState(cause.what());
  } catch (const std::exception& cause) {
    throw errors.readFailed(cause.what());
  }
  if (!bytes) throw errors.missingFile();
  // The record may hold a secret; the raw bytes must not outlive the decode.
  const WipeOnExit wipe(*bytes);
  try {
    return decode(*bytes);
  } catch (const StoreError&) {
    throw;
  } catch (const std::exception& cause) {
    throw errors.invalidValue(cause.what());
  }
}

}  // namespace secure_store
}  // namespace harborkeeper
