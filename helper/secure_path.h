#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <stdexcept>
#include <string>

#include "core/platform/unique_fd.h"

namespace harborkeeper {

class SecurePathError : public std::runtime_error {
 public:
  enum class Kind {
    missing,     // a component does not exist
    unreadable,  // a system call failed otherwise
    notAbsolute,
    link,      // a component is a symbolic link
    insecure,  // wrong owner, writable by group/others, or not a regular file
  };
  SecurePathError(Kind kind, const std::string& message) : std::runtime_error(message), kind_(kind) {}
  [[nodiscard]] Kind kind() const noexcept { return kind_; }

 private:
  Kind kind_;
};

// Opens the regular file at the absolute `path` for reading, walking from "/"
// one component at a time through descriptors (O_NOFOLLOW), so nothing on the
// way can be swapped for a link after it was checked. Every directory must be
// owned by `expectedOwner` (or root, who can change anything anyway) and not
// writable by group or others, unless it is sticky and owned by one of them
// (as /tmp). The file must be owned by `expectedOwner` and not writable by
// group or others. `status` receives the file's fstat. Throws SecurePathError.
UniqueFd openSecurely(const std::string& path, uid_t expectedOwner, struct stat* status = nullptr);

}  // namespace harborkeeper
