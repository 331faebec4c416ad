#include "helper/secure_path.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

using namespace testing_support;
using Kind = SecurePathError::Kind;

struct Case {
  const char* name;
  std::string path;
  uid_t owner;
  std::optional<Kind> kind;  // none: opened
  std::string message;
};

TEST(OpenSecurelyTest, OpensOnlyThroughSafeDirectoriesAndRefusesEveryUnsafeStep) {
  const long descriptorsBefore = entryCount();
  const TemporaryDirectory temp;
  const fs::path root = temp.path();
  const std::string top = root.string();
  const std::string file = top + "/dir/file";
  for (const auto& [dir, mode] :
       {std::pair{"dir", 0755}, {"dir/sub", 0755}, {"open", 0777}, {"sticky", 01777}, {"foreign", 01777}}) {
    fs::create_directory(root / dir);
    fs::permissions(root / dir, fs::perms(mode));
  }
  for (const auto& [name, mode] : {std::pair{"dir/file", 0644},
                                   {"dir/shared", 0664},
                                   {"open/file", 0644},
                                   {"sticky/file", 0644},
                                   {"foreign/file", 0644}}) {
    writeRaw(root / name, name, fs::perms(mode));
  }
  fs::create_symlink("file", root / "dir/link");
  fs::create_symlink("dir", root / "linked");
  // Only root can give a directory away. Root-owned directories are trusted whatever the expected owner.
  const bool privileged = ::getuid() == 0;
  if (privileged) {
    ASSERT_EQ(::chown((root / "foreign").c_str(), 1, 1), 0);
  }
  const uid_t me = ::getuid();
  const uid_t other = me + 1;
  const std::string notOther = (privileged ? file + " is not owned by" : top + " is not owned by root or") +
                               " uid " + std::to_string(other) + ".";

  const Case cases[] = {
      {"regular file", file, me, std::nullopt, "dir/file"},
      {"file in a sticky directory", top + "//sticky/file", me, std::nullopt, "sticky/file"},
      {"group-writable file", top + "/dir/shared", me, Kind::insecure,
       top + "/dir/shared is writable by group or others."},
      {"other-writable directory", top + "/open/file", me, Kind::insecure,
       top + "/open is writable by group or others."},
      {"sticky directory of another owner", top + "/foreign/file", me, Kind::insecure,
       top + "/foreign is not owned by root."},
      {"file of another owner", file, other, Kind::insecure, notOther},
      {"link as the file", top + "/dir/link", me, Kind::link, top + "/dir/link is a symbolic link."},
      {"link on the way", top + "/linked/file", me, Kind::link, top + "/linked is a symbolic link."},
      {"missing file", top + "/dir/none", me, Kind::missing, top + "/dir/none does not exist."},
      {"missing directory", top + "/none/file", me, Kind::missing, top + "/none does not exist."},
      {"directory", top + "/dir/sub", me, Kind::insecure, top + "/dir/sub is not a regular file."},
      {"relative path", "tmp/file", me, Kind::notAbsolute, "tmp/file is not an absolute path."},
      {"dot-dot", top + "/dir/../dir/file", me, Kind::notAbsolute,
       top + R"(/dir/../dir/file contains a "." or ".." component.)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (!privileged && std::string(c.name).starts_with("sticky directory of")) continue;
    try {
      struct stat status {};
      const UniqueFd fd = openSecurely(c.path, c.owner, &status);
      std::string content(64, '\0');
      content.resize(static_cast<std::size_t>(std::max<ssize_t>(0, ::read(fd.get(), content.data(), 64))));
      EXPECT_EQ(content, c.message);  // the very file named, not one a link led to
      EXPECT_TRUE(S_ISREG(status.st_mode) && status.st_size == static_cast<off_t>(content.size()));
      EXPECT_FALSE(c.kind.has_value());
    } catch (const SecurePathError& error) {
      EXPECT_EQ(error.kind(), c.kind);
      EXPECT_EQ(error.what(), c.message);
    }
  }
  EXPECT_EQ(entryCount(), descriptorsBefore);
}

}  // namespace
}  // namespace harborkeeper
