// A file that is replaced whole, whatever is done to it and to its spare meanwhile.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "orbiq/services/platform/files/AtomicFile.h"
#include "tests/support/CLibrary.h"
#include "tests/support/TemporaryDirectory.h"

namespace orbiq::test {
namespace {

namespace fs = std::filesystem;

class AtomicFileTest : public testing::Test {
 protected:
  /// The bytes that the file holds afterwards, or the error.
  std::string replace(const std::string& bytes) {
    return replace(bytes, ChangedPages::all(bytes.size()));
  }
  std::string replace(const std::string& bytes, const ChangedPages& changed) {
    const int failure = _file.replace(bytes, changed, false);
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
  AtomicFile _file{path};
};

TEST_F(AtomicFileTest, WritesOnlyWhatTheLastTwoVersionsChanged) {
  constexpr std::size_t kPage = ChangedPages::kSize;
  std::string bytes(5 * kPage + 10, '0');
  const auto change = [&](std::vector<std::size_t> pages, char digit) {
    ChangedPages changed = ChangedPages::all(bytes.size());
    changed.clear();
    for (const std::size_t page : pages) {
      changed.add(page * kPage + 7, 1);
      bytes[page * kPage + 7] = digit;
    }
    return changed;
  };
  EXPECT_EQ(replace(bytes), bytes);
  EXPECT_EQ(replace(bytes, change({1, 2}, '1')), bytes);
  const ino_t first = inodeOf(spare);
  EXPECT_EQ(replace(bytes, change({4, 5}, '2')), bytes);
  EXPECT_EQ(inodeOf(path), first);
  // What nobody said has changed is not written.
  std::string other = bytes;
  other[0] = other[3 * kPage] = '!';
  const ChangedPages changed = change({}, ' ');
  EXPECT_EQ(replace(other, changed), bytes);
  bytes.resize(2 * kPage);
  EXPECT_EQ(replace(bytes), bytes);
  EXPECT_EQ(replace(bytes + bytes), bytes + bytes);
  EXPECT_EQ(replace(""), "");
  EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(AtomicFileTest, TouchesNothingThatIsNotItsOwn) {
  const std::string other = directory.path() / "other";
  const std::function<void(const std::string&)> tampers[]{
      [&](const std::string& name) { write(name, "changed in place"); },
      [&](const std::string& name) { fs::remove(name), write(name, "another"); },
      [&](const std::string& name) { fs::remove(name), fs::create_symlink(other, name); },
      [&](const std::string& name) { fs::remove(name), fs::create_hard_link(other, name); },
      [&](const std::string& name) { fs::remove(name), mkfifo(name.c_str(), 0600); },
  };
  write(other, "somebody else's");
  replace("one two");
  replace("one three");
  for (const std::string& name : {path, spare}) {
    for (const auto& tamper : tampers) {
      tamper(name);
      EXPECT_EQ(replace("one four"), "one four");
      EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path)));
      EXPECT_EQ(replace("one five"), "one five");
      EXPECT_EQ(readFile(other, 100), "somebody else's");
    }
  }
}

TEST_F(AtomicFileTest, FailsAndRecovers) {
  replace("one two");
  for (const std::string& name : {path, spare}) {
    fs::remove(name);
    fs::create_directories(name + "/in the way");
    EXPECT_EQ(replace("one three"), "error " + std::to_string(EISDIR)) << name;
    fs::remove_all(name);
    EXPECT_EQ(replace("one four"), "one four");
  }
  // What a file system tells only when a file is closed is known before another file goes.
  fs::remove(path), write(path, "another");
  DiskCalls::flushesFail = true;
  EXPECT_EQ(replace("one five"), "error " + std::to_string(EBADF));
  EXPECT_EQ(readFile(path, 100), "another");
  DiskCalls::flushesFail = false;
  EXPECT_EQ(replace("one six"), "one six");
  const std::string away = directory.path() / "away";
  EXPECT_EQ(AtomicFile(away + "/file").replace("bytes", ChangedPages::all(5), false), ENOENT);
}

}  // namespace
}  // namespace orbiq::test
