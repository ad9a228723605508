// The queue on disk: a file that cannot be read, processes that want the same one, and its syncs.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/Application.h"
#include "tests/support/CLibrary.h"
#include "tests/support/Role.h"
#include "tests/support/TemporaryDirectory.h"

namespace orbiq::test {
namespace {

namespace fs = std::filesystem;

constexpr char kAnother[] = "Another process of this application has the requests file";

/// A queue of which its file is told.
struct SavedQueue {
  RequestsFile file;
  RequestQueue queue = {};

  void save(std::size_t count) {
    for (; queue.size() > count; queue.pop_front()) file.removed(0);
    while (queue.size() < count) file.added(queue.emplace_back(streamingRequest()));
    file.save(queue);
  }
};

class RequestsFileTest : public testing::Test {
 protected:
  const TemporaryDirectory directory;
  const fs::path place = directory.path() / "cache";
  const std::string path = place / "requests.ser";
  const std::string lock = path + ".lock";
  Application application{kNoServer};
};

TEST_F(RequestsFileTest, WhatCannotBeReadIsMovedAsideAndNotSavedOver) {
  const std::string aside = path + ".unread";
  const auto check = [&](const char* cause, const auto& hinder) {
    SavedQueue saved{RequestsFile(path)};
    hinder();
    EXPECT_TRUE(saved.file.load().empty()) << cause;
    fs::remove_all(lock);
    EXPECT_EQ(application.log().count(std::string("can't be read: ") + cause +
                                      "; before the next save " + path + " becomes " + aside),
              1U);
    saved.save(1);
    saved.save(2);
    EXPECT_EQ(savedRequests(path).size(), 2U) << cause;
  };
  EXPECT_TRUE(RequestsFile(path).load().empty());
  EXPECT_TRUE(application.log().lines().empty()) << "there is no file";
  RequestsFile("/sys/orbiq/a/requests.ser").save({});
  EXPECT_EQ(application.log().count("can't be saved to /sys/orbiq/a/requests.ser: "), 1U);
  EXPECT_EQ(application.log().count("No such file"), 0U) << "why there is no directory";
  // Nobody can read its first bytes.
  fs::create_directory(place);
  check("Input/output error", [&] { fs::create_symlink("/proc/self/mem", path); });
  EXPECT_TRUE(fs::is_symlink(aside));
  fs::remove(lock);
  check("Is a directory", [&] { fs::create_directory(lock); });
  EXPECT_EQ(savedRequests(aside).size(), 2U);

  check("File too large", [&] { fs::resize_file(path, (64U << 20U) + 1); });

  const auto large = streamingRequest();
  large->setSerial(std::string(40U << 20U, 'x'));
  RequestsFile(path).save({large});
  const auto size = fs::file_size(path);
  rlim_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  // A sanitizer reserves terabytes, and cannot live under a limit; an emulator has none.
  if (!std::string(ORBIQ_TEST_EMULATOR).empty() || pages > rlim_t{1} << 28) return;
  const rlimit limit{pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (64U << 20U),
                     RLIM_INFINITY};
  check("Cannot allocate memory", [&] { setrlimit(RLIMIT_AS, &limit); });
  EXPECT_EQ(fs::file_size(aside), size);
}

/// Prints how many requests it loaded, and whether it was told that another process has the file;
/// then saves nine.
const RoleRegistration kUses("use-the-file", [](const std::vector<std::string>& arguments) {
  const Application application(kNoServer);
  SavedQueue saved{RequestsFile(arguments[0])};
  const std::size_t loaded = saved.file.load().size();
  saved.save(9);
  std::cout << loaded << (application.log().count(kAnother) != 0 ? " told" : "") << std::endl;
  return pause();
});

TEST_F(RequestsFileTest, WhateverBecomesOfTheLockFileOneProcessWrites) {
  const auto touch = [&] { std::ofstream(lock, std::ios::app).flush(); };
  const struct {
    std::function<void()> tamper;
    bool savesFirst;      ///< before the other process comes
    const char* printed;  ///< by that
  } cases[]{
      {[&] { fs::remove(lock); }, false, "2"},
      {[&] { fs::rename(lock, lock + ".old"), touch(); }, false, "2"},
      {[&] { fs::remove_all(place); }, false, "0"},
      {touch, false, "0 told"},
      {[&] { fs::remove(lock); }, true, "0 told"},
      {[] { DiskCalls::nextLookFails = true; }, true, "0 told"},
      {[&] { fs::remove_all(place); }, true, "0 told"},
  };
  std::size_t losses = 0;
  for (const auto& [tamper, savesFirst, printed] : cases) {
    SavedQueue saved{RequestsFile(path)};
    fs::remove_all(place);
    saved.save(2);
    tamper();
    if (savesFirst) saved.save(3);
    RoleProcess other("use-the-file", {path});
    const std::string line = other.readLine();
    EXPECT_EQ(line, printed);
    const bool isLost = !line.ends_with("told");
    saved.save(3);
    EXPECT_EQ(savedRequests(path).size(), isLost ? 9U : 3U) << printed;
    other.kill(SIGKILL);
    other.wait();
    saved.save(3);
    EXPECT_EQ(savedRequests(path).size(), isLost ? 9U : 3U) << "what was lost is not taken over";
    losses += isLost ? 1 : 0;
    EXPECT_EQ(application.log().count(kAnother), losses) << "told once";
  }
}

/// Locks the whole file as earlier versions did, and prints the error number.
const RoleRegistration kLocks("lock-by-process", [](const std::vector<std::string>& arguments) {
  struct flock whole{};
  whole.l_type = F_WRLCK;
  const int file = open(arguments[0].c_str(), O_RDWR | O_CREAT, 0600);
  std::cout << (fcntl(file, F_SETLK, &whole) == 0 ? 0 : errno) << std::endl;
  return pause();
});

/// Has the file, and ends before a child that was forked.
const RoleRegistration kForks("fork-and-end", [](const std::vector<std::string>& arguments) {
  SavedQueue saved{RequestsFile(arguments[0])};
  saved.save(4);
  if (fork() != 0) _exit(0);
  std::cout << getpid() << std::endl;
  return pause();
});

TEST_F(RequestsFileTest, TheLockIsTheProcessesAndKnownToEarlierVersions) {
  {
    RoleProcess forking("fork-and-end", {path});
    const pid_t child = std::stoi(forking.readLine());
    EXPECT_EQ(forking.wait(), 0);
    RequestsFile file(path);
    EXPECT_EQ(file.load().size(), 4U);
    kill(child, SIGKILL);
    EXPECT_EQ(RoleProcess("lock-by-process", {lock}).readLine(), std::to_string(EAGAIN));
  }
  RoleProcess earlier("lock-by-process", {lock});
  EXPECT_EQ(earlier.readLine(), "0");
  EXPECT_TRUE(RequestsFile(path).load().empty());
  EXPECT_EQ(application.log().count(kAnother), 1U);
}

TEST_F(RequestsFileTest, IsSyncedAtEachSaveWhereTheHostAsksForIt) {
  EXPECT_EQ(HostApplication::describe({.durability = Durability::PowerLoss}), nullptr);
  fs::create_directory(place);
  SavedQueue saved{RequestsFile(path)};
  const DiskCalls before = DiskCalls::soFar();
  for (std::size_t count : {1U, 2U, 3U}) saved.save(count);
  saved.file.sync();
  EXPECT_EQ(DiskCalls::soFar().files, before.files + 3);
  EXPECT_EQ(DiskCalls::soFar().directories, before.directories + 3);
}

}  // namespace
}  // namespace orbiq::test
