// A file that is replaced whole, whatever is done to it and to its spare meanwhile.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "orbiq/services/platform/files/AtomicFile.h"
#include "tests/support/DiskCalls.h"
#include "tests/support/TemporaryDirectory.h"

namespace orbiq::test {
namespace {

namespace fs = std::filesystem;

class AtomicFileTest : public testing::Test {
 protected:
  /// The bytes that the file holds afterwards, or the error.
  std::string replace(const std::string& bytes, std::size_t kept = 0) {
    const int failure = _file.replace(path, bytes, kept, false);
    return failure != 0 ? "error " + std::to_string(failure) : readFile(path, 1U << 20U).value();
  }
  static ino_t inodeOf(const std::string& path) {
    struct stat status{};
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
  }
  void write(const std::string& name, const std::string& bytes) {
    std::ofstream(name, std::ios::binary | std::ios::trunc) << bytes;
  }

  const TemporaryDirectory directory;
  const std::string path = directory.path() / "file";
  const std::string spare = path + ".new";

 private:
  AtomicFile _file;
};

TEST_F(AtomicFileTest, WritesOnlyWhatDiffersFromTwoVersionsAgo) {
  EXPECT_EQ(replace("0123456789"), "0123456789");
  EXPECT_EQ(replace("012345abc", 6), "012345abc");
  const ino_t first = inodeOf(path);
  EXPECT_EQ(replace("012xyz", 3), "012xyz");
  EXPECT_EQ(inodeOf(spare), first);
  // Four bytes are those of the last version, but only three those of the spare file.
  EXPECT_EQ(replace("012x and much more than before", 4), "012x and much more than before");
  EXPECT_EQ(inodeOf(path), first);
  EXPECT_EQ(replace("", 0), "");
  EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(AtomicFileTest, TouchesNothingThatIsNotItsOwn) {
  const std::string other = directory.path() / "other";
  const std::function<void(const std::string&)> tampers[]{
      [](const std::string& name) { fs::remove(name); },
      [&](const std::string& name) { write(name, "changed in place"); },
      [&](const std::string& name) { fs::remove(name), write(name, "another"); },
      [&](const std::string& name) { fs::remove(name), fs::create_symlink(other, name); },
      [&](const std::string& name) { fs::remove(name), fs::create_hard_link(other, name); },
      [&](const std::string& name) { fs::remove(name), mkfifo(name.c_str(), 0600); },
      [&](const std::string& name) { fs::remove(name), fs::create_symlink("nowhere", name); },
  };
  write(other, "somebody else's");
  replace("one two");
  replace("one three", 4);
  for (const std::string& name : {path, spare}) {
    for (const auto& tamper : tampers) {
      tamper(name);
      EXPECT_EQ(replace("one four", 4), "one four");
      EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path)));
      EXPECT_EQ(replace("one five", 4), "one five");
      EXPECT_EQ(readFile(other, 100), "somebody else's");
    }
  }
}

TEST_F(AtomicFileTest, FailsAndRecovers) {
  replace("one two");
  for (const std::string& name : {path, spare}) {
    fs::remove(name);
    fs::create_directories(name + "/in the way");
    EXPECT_EQ(replace("one three", 4), "error " + std::to_string(EISDIR)) << name;
    fs::remove_all(name);
    EXPECT_EQ(replace("one four", 4), "one four");
  }
  // What a file system tells only when a file is closed is known before another file goes.
  fs::remove(path), write(path, "another");
  DiskCalls::failFlushes(true);
  EXPECT_EQ(replace("one five", 4), "error " + std::to_string(EBADF));
  EXPECT_EQ(readFile(path, 100), "another");
  DiskCalls::failFlushes(false);
  EXPECT_EQ(replace("one six", 4), "one six");
  const std::string away = directory.path() / "away";
  EXPECT_EQ(AtomicFile().replace(away + "/file", "bytes", 0, false), ENOENT);
}

}  // namespace
}  // namespace orbiq::test
