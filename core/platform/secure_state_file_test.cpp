#include "core/platform/secure_state_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/platform/state_file_test_support.h"

namespace harborkeeper {
namespace {

using namespace testing_support;

const std::string directoryNotPrivate = "Harborkeeper helper state directory is not private. ";
const std::string fileNotPrivate = "Harborkeeper helper state file is not private. ";

class SecureStateFileTest : public testing::Test {
 protected:
  SecureStateFile fileIn(const fs::path& directory, uid_t owner) const {
    return SecureStateFile(directory.string(), "Status.plist", owner);
  }

  std::string readString(const SecureStateFile& file) const {
    const std::optional<Bytes> bytes = file.read();
    return bytes ? toString(*bytes) : "<missing>";
  }

  void prepare(const std::string& content = "genuine") {
    makePrivateDirectory(dir_);
    writeRaw(filePath_, content, 0600);
  }

  // read, remove and validate all refuse with the same text and leave the entry.
  void expectAllRefuse(const SecureStateFile& file, const std::string& expected) const {
    const std::vector<std::function<void()>> operations = {[&] { (void)file.read(); }, [&] { file.remove(); },
                                                           [&] { file.validate(); }};
    for (const auto& operation : operations) {
      const auto error = thrown<HelperStateFileSecurityError>(operation);
      EXPECT_EQ(error ? std::string(error->what()) : "<no error>", expected);
    }
    EXPECT_TRUE(file.exists());
  }

  const uid_t me_ = ::getuid();
  const TemporaryDirectory temp_;
  const fs::path root_ = temp_.path();
  const fs::path dir_ = root_ / "state";
  const fs::path filePath_ = dir_ / "Status.plist";
  const SecureStateFile file_ = fileIn(dir_, me_);
};

TEST_F(SecureStateFileTest, WriteReadRemoveLifecycle) {
  const fs::path nested = root_ / "a" / "b" / "state";
  const SecureStateFile file = fileIn(nested, me_);
  file.write(toBytes("a much longer first version"));
  for (const fs::path& created : {root_ / "a", root_ / "a" / "b", nested}) EXPECT_EQ(modeOf(created), 0700u);
  EXPECT_EQ(modeOf(file.filePath()), 0600u);
  file.write(toBytes("short"));
  EXPECT_EQ(readString(file), "short");
  EXPECT_EQ(entriesOf(nested), std::set<std::string>{"Status.plist"});

  EXPECT_TRUE(file.remove());
  EXPECT_TRUE(entriesOf(nested).empty());
  EXPECT_EQ(modeOf(nested), 0700u);
  EXPECT_FALSE(file.remove());
}

TEST_F(SecureStateFileTest, MissingFileIsNothingAndCreatesNothing) {
  EXPECT_FALSE(file_.exists());
  EXPECT_EQ(file_.read(), std::nullopt);
  EXPECT_FALSE(file_.remove());
  EXPECT_FALSE(fs::exists(dir_));
  const auto error = thrown<FileSystemError>([&] { file_.validate(); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->what(), "Could not inspect " + dir_.string() + ": No such file or directory.");
}

TEST_F(SecureStateFileTest, InsecureFileIsRefusedAndThenReplacedByWrite) {
  const fs::path decoy = root_ / "decoy";
  struct Case {
    const char* name;
    std::function<void()> makeInsecure;
    std::string expected;
  };
  const Case cases[] = {
      {"widened", [&] { ::chmod(filePath_.c_str(), 0644); }, fileNotPrivate + "Expected permissions 600."},
      {"stricter", [&] { ::chmod(filePath_.c_str(), 0400); }, fileNotPrivate + "Expected permissions 600."},
      {"link to a private file", [&] { fs::remove(filePath_), fs::create_symlink(decoy, filePath_); },
       fileNotPrivate + "Symbolic links are not allowed."},
      {"dangling link", [&] { fs::remove(filePath_), fs::create_symlink(root_ / "none", filePath_); },
       fileNotPrivate + "Symbolic links are not allowed."},
      {"fifo", [&] { fs::remove(filePath_), ::mkfifo(filePath_.c_str(), 0600); },
       fileNotPrivate + "Unexpected file type."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(dir_);
    prepare();
    writeRaw(decoy, "decoy", 0600);
    c.makeInsecure();
    expectAllRefuse(file_, c.expected);

    file_.write(toBytes("fresh"));
    EXPECT_TRUE(S_ISREG(lstatOf(filePath_).st_mode));
    EXPECT_EQ(modeOf(filePath_), 0600u);
    EXPECT_EQ(readString(file_), "fresh");
    EXPECT_EQ(contentOf(decoy), "decoy");
    EXPECT_EQ(entriesOf(dir_), std::set<std::string>{"Status.plist"});
  }
}

TEST_F(SecureStateFileTest, InsecureDirectoryIsRefusedAndRepairedOnlyWhenOurs) {
  const fs::path real = root_ / "real";
  struct Case {
    const char* name;
    std::function<void()> arrange;
    uid_t owner;
    std::string expected;  // for read, remove, validate and write
    bool repairedByWrite;  // otherwise write fails with `expected`
    unsigned modeAfterWrite;
  };
  const Case cases[] = {
      {"widened", [&] { ::chmod(dir_.c_str(), 0755); }, me_,
       directoryNotPrivate + "Expected permissions 700.", true, 0700},
      {"another owner's", [&] { ::chmod(dir_.c_str(), 0755); }, me_ + 1,
       directoryNotPrivate + "Expected root ownership.", false, 0755},
      {"link to a private directory", [&] { fs::rename(dir_, real), fs::create_symlink(real, dir_); }, me_,
       directoryNotPrivate + "Symbolic links are not allowed.", false, 0777},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(dir_), fs::remove_all(real);
    prepare();
    c.arrange();
    const SecureStateFile file = fileIn(dir_, c.owner);
    expectAllRefuse(file, c.expected);

    const auto error = thrown<HelperStateFileSecurityError>([&] { file.write(toBytes("new")); });
    EXPECT_EQ(error ? std::string(error->what()) : "<repaired>",
              c.repairedByWrite ? "<repaired>" : c.expected);
    EXPECT_EQ(modeOf(dir_), c.modeAfterWrite);
    EXPECT_EQ(contentOf(filePath_), c.repairedByWrite ? "new" : "genuine");
  }
}

TEST_F(SecureStateFileTest, WriteRefusesANonDirectory) {
  writeRaw(dir_, "not a directory", 0700);
  const auto error = thrown<HelperStateFileSecurityError>([&] { file_.write(toBytes("x")); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->what(), directoryNotPrivate + "Unexpected file type.");
  EXPECT_EQ(contentOf(dir_), "not a directory");
}

TEST_F(SecureStateFileTest, FailedWriteLeavesNoTemporaryFile) {
  fs::create_directories(filePath_);  // renaming a file over a directory fails
  const auto error = thrown<FileSystemError>([&] { file_.write(toBytes("x")); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->what(), "Could not replace " + filePath_.string() + ": Is a directory.");
  EXPECT_EQ(entriesOf(dir_), std::set<std::string>{"Status.plist"});
}

TEST_F(SecureStateFileTest, ReadRefusesFilesOverOneMebibyte) {
  prepare(std::string(SecureStateFile::maximumFileSize, 'a'));
  EXPECT_EQ(file_.read()->size(), SecureStateFile::maximumFileSize);
  writeRaw(filePath_, std::string(SecureStateFile::maximumFileSize + 1, 'a'), 0600);
  const auto error = thrown<FileSystemError>([&] { (void)file_.read(); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->what(), "Could not read " + filePath_.string() + ": File too large.");
}

// An entry swapped after its path check, just before it is opened, is caught
// by the checks on the opened descriptor and never followed.
TEST_F(SecureStateFileTest, EntriesSwappedBetweenCheckAndOpenAreRefused) {
  const fs::path decoyDir = root_ / "decoy";
  const auto linkDirectory = [&] { fs::rename(dir_, root_ / "old"), fs::create_symlink(decoyDir, dir_); };
  struct Case {
    const char* name;
    fs::path target;
    std::function<void()> swap;
    bool write;  // otherwise read
    std::string expected;
  };
  const Case cases[] = {
      {"file to link", filePath_,
       [&] {
         fs::create_symlink(decoyDir / "Status.plist", dir_ / ".l"), fs::rename(dir_ / ".l", filePath_);
       },
       false, fileNotPrivate + "Symbolic links are not allowed."},
      {"file to fifo", filePath_, [&] { fs::remove(filePath_), ::mkfifo(filePath_.c_str(), 0600); }, false,
       fileNotPrivate + "Unexpected file type."},
      {"file widened", filePath_, [&] { ::chmod(filePath_.c_str(), 0644); }, false,
       fileNotPrivate + "Expected permissions 600."},
      {"directory to link on read", dir_, linkDirectory, false,
       directoryNotPrivate + "Symbolic links are not allowed."},
      {"directory to link on write", dir_, linkDirectory, true,
       directoryNotPrivate + "Symbolic links are not allowed."},
      {"directory widened", dir_, [&] { ::chmod(dir_.c_str(), 0755); }, false,
       directoryNotPrivate + "Expected permissions 700."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(root_ / "old"), fs::remove_all(dir_), fs::remove_all(decoyDir);
    prepare();
    makePrivateDirectory(decoyDir);
    writeRaw(decoyDir / "Status.plist", "decoy", 0600);

    SecureStateFile file = fileIn(dir_, me_);
    bool swapped = false;
    file.setBeforeOpenHookForTesting([&](const std::string& path) {
      if (!swapped && path == c.target.string()) swapped = true, c.swap();
    });
    const auto error = thrown<HelperStateFileSecurityError>(
        [&] { c.write ? file.write(toBytes("new")) : (void)file.read(); });
    EXPECT_TRUE(swapped);
    EXPECT_EQ(error ? std::string(error->what()) : "<no error>", c.expected);
    EXPECT_EQ(entriesOf(decoyDir), std::set<std::string>{"Status.plist"});
    EXPECT_EQ(contentOf(decoyDir / "Status.plist"), "decoy");
  }
}

TEST_F(SecureStateFileTest, NoDescriptorOutlivesAnOperation) {
  const auto openDescriptors = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
  const auto before = openDescriptors();
  file_.write(toBytes("x"));
  (void)file_.read();
  file_.validate();
  ASSERT_EQ(::chmod(filePath_.c_str(), 0644), 0);
  EXPECT_THROW((void)file_.read(), HelperStateFileSecurityError);
  EXPECT_THROW(file_.remove(), HelperStateFileSecurityError);
  fs::remove(filePath_);
  fs::create_directory(filePath_);
  EXPECT_THROW(file_.write(toBytes("x")), FileSystemError);
  EXPECT_EQ(openDescriptors(), before);
}

// A store of one text record built on the generic halves of the store pattern.
struct FakeStoreError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct FakeErrors {
  FakeStoreError missingFile() const { return FakeStoreError("missing"); }
  FakeStoreError insecureState(const std::string& d) const { return FakeStoreError("insecure: " + d); }
  FakeStoreError readFailed(const std::string& d) const { return FakeStoreError("read: " + d); }
  FakeStoreError writeFailed(const std::string& d) const { return FakeStoreError("write: " + d); }
  FakeStoreError invalidValue(const std::string& d) const { return FakeStoreError("invalid: " + d); }
};

std::string decodeFake(const Bytes& bytes) {
  const std::string text = toString(bytes);
  if (text == "undecodable") throw std::invalid_argument("not a record");
  if (text == "invalid") throw FakeStoreError("own validation error");
  return text;
}

TEST_F(SecureStateFileTest, GenericStoreMapsEachFailureToItsKind) {
  const std::string tooLarge(SecureStateFile::maximumFileSize + 1, 'a');
  struct Case {
    std::function<void()> arrange;
    std::string expected;  // the record, or the store error's text
  };
  const Case cases[] = {
      {[] {}, "missing"},
      {[&] { secure_store::writeRecord(file_, toBytes("record"), FakeErrors{}); }, "record"},
      {[&] { ::chmod(filePath_.c_str(), 0644); },
       "insecure: " + fileNotPrivate + "Expected permissions 600."},
      {[&] { writeRaw(filePath_, tooLarge, 0600); },
       "read: Could not read " + filePath_.string() + ": File too large."},
      {[&] { writeRaw(filePath_, "undecodable", 0600); }, "invalid: not a record"},
      {[&] { writeRaw(filePath_, "invalid", 0600); }, "own validation error"},
  };
  for (const Case& c : cases) {
    c.arrange();
    std::string outcome;
    try {
      outcome = secure_store::loadRecord<FakeStoreError>(file_, FakeErrors{}, decodeFake);
    } catch (const FakeStoreError& error) {
      outcome = error.what();
    }
    EXPECT_EQ(outcome, c.expected);
  }
  fs::remove_all(dir_);
  fs::create_symlink(root_, dir_);
  const auto error =
      thrown<FakeStoreError>([&] { secure_store::writeRecord(file_, toBytes("x"), FakeErrors{}); });
  EXPECT_EQ(error ? std::string(error->what()) : "",
            "write: " + directoryNotPrivate + "Symbolic links are not allowed.");
}

}  // namespace
}  // namespace harborkeeper
