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

#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/services/platform/archive/KeyedUnarchiver.h"
#include "orbiq/services/platform/files/AtomicFile.h"
#include "tests/support/Application.h"
#include "tests/support/DiskCalls.h"
#include "tests/support/Role.h"
#include "tests/support/TemporaryDirectory.h"

namespace orbiq::test {
namespace {

namespace fs = std::filesystem;

constexpr char kAnother[] = "Another process of this application has the requests file";

RequestQueue queueOf(std::size_t count) {
  RequestQueue queue;
  while (queue.size() < count) queue.push_back(streamingRequest());
  return queue;
}

/// A queue of which its file is told.
struct SavedQueue {
  RequestsFile file;
  RequestQueue queue;

  void save(const std::string& path, std::size_t count) {
    for (; queue.size() > count; queue.pop_front()) file.removed(0);
    while (queue.size() < count) file.added(queue.emplace_back(streamingRequest()));
    file.save(path, queue);
  }
};

std::size_t savedIn(const std::string& path) {
  constexpr const ArchivedClass* kClasses[] = {&orbiqRequest::kArchivedClass};
  return KeyedUnarchiver::unarchiveArray(readFile(path, 1U << 26U).value_or(""), kClasses)
      .value_or(std::vector<std::shared_ptr<Archivable>>())
      .size();
}

class RequestsFileTest : public testing::Test {
 protected:
  const TemporaryDirectory directory;
  const fs::path place = directory.path() / "cache";
  const std::string path = place / "requests.ser";
  const std::string lock = path + ".lock";
  Application application{"http://127.0.0.1:9/"};
};

/// What the process may have at most, for a while.
class ResourceLimit {
 public:
  ResourceLimit(decltype(RLIMIT_AS) resource, rlim_t most) : _resource(resource) {
    getrlimit(_resource, &_before);
    const rlimit limit{most, _before.rlim_max};
    setrlimit(_resource, &limit);
  }
  ~ResourceLimit() { setrlimit(_resource, &_before); }
  ResourceLimit(const ResourceLimit&) = delete;
  ResourceLimit& operator=(const ResourceLimit&) = delete;

  static rlim_t memoryInUse() {
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
  }

 private:
  const decltype(RLIMIT_AS) _resource;
  rlimit _before{};
};

TEST_F(RequestsFileTest, WhatCannotBeReadIsMovedAsideAndNotSavedOver) {
  const std::string aside = path + ".unread";
  const auto check = [&](const char* cause, const auto& hinder) {
    SavedQueue saved;
    RequestsFile& file = saved.file;
    {
      [[maybe_unused]] const auto hindrance = hinder();
      EXPECT_TRUE(file.load(path).empty()) << cause;
    }
    EXPECT_EQ(application.log().count(std::string("can't be read: ") + cause +
                                      "; before the next " + "save " + path + " becomes " + aside),
              1U);
    saved.save(path, 1);
    saved.save(path, 2);
    EXPECT_EQ(savedIn(path), 2U) << cause;
  };
  RequestsFile().save(path, queueOf(30));
  check("Too many open files", [] { return ResourceLimit(RLIMIT_NOFILE, 3); });
  EXPECT_EQ(savedIn(aside), 30U);
  check("Input/output error", [&] {
    fs::remove(path);
    fs::create_symlink("/proc/self/mem", path);  // whose first bytes nobody can read
    return 0;
  });
  EXPECT_TRUE(fs::is_symlink(aside));
  fs::remove(lock);
  check("Is a directory", [&] {
    fs::create_directory(lock);
    return std::shared_ptr<void>(nullptr, [&](void*) { fs::remove(lock); });
  });
  EXPECT_EQ(savedIn(aside), 2U);

  const auto large = streamingRequest();
  large->setSerial(std::string(40U << 20U, 'x'));
  RequestsFile().save(path, {large, large});
  // A sanitizer reserves terabytes, and cannot live under a limit; an emulator has none.
  const bool isEmulated = !std::string(ORBIQ_TEST_EMULATOR).empty();
  if (isEmulated || ResourceLimit::memoryInUse() / 4096 > rlim_t{1} << 28) return;
  check("Cannot allocate memory",
        [] { return ResourceLimit(RLIMIT_AS, ResourceLimit::memoryInUse() + (64U << 20U)); });
  EXPECT_EQ(savedIn(aside), 2U);
}

/// Prints how many requests it loaded, and whether it was told that another process has the file;
/// then saves nine.
const RoleRegistration kUses("use-the-file", [](const std::vector<std::string>& arguments) {
  const Application application("http://127.0.0.1:9/");
  RequestsFile file;
  const std::size_t loaded = file.load(arguments[0]).size();
  file.save(arguments[0], queueOf(9));
  std::cout << loaded << (application.log().count(kAnother) != 0 ? " told" : "") << std::endl;
  return pause();
});

TEST_F(RequestsFileTest, WhateverBecomesOfTheLockFileOneProcessWrites) {
  const auto touch = [&] { std::ofstream(lock, std::ios::app).flush(); };
  const struct {
    std::function<void()> tamper;
    bool savesFirst;      ///< before the other process comes
    const char* printed;  ///< by that
    std::size_t saved;    ///< in the end
  } cases[]{
      {[&] { fs::remove(lock); }, false, "2", 9},
      {[&] { fs::rename(lock, lock + ".old"), touch(); }, false, "2", 9},
      {[&] { fs::remove_all(place); }, false, "0", 9},
      {touch, false, "0 told", 3},
      {[&] { fs::remove(lock); }, true, "0 told", 3},
      {[&] { fs::remove_all(place); }, true, "0 told", 3},
  };
  std::size_t losses = 0;
  for (const auto& row : cases) {
    SavedQueue file;
    fs::remove_all(place);
    file.save(path, 2);
    row.tamper();
    if (row.savesFirst) file.save(path, 3);
    RoleProcess other("use-the-file", {path});
    const std::size_t index = static_cast<std::size_t>(&row - cases);
    EXPECT_EQ(other.readLine(), row.printed) << index;
    file.save(path, 3);
    file.save(path, 3);
    EXPECT_EQ(savedIn(path), row.saved) << index;
    losses += row.saved == 9 ? 1 : 0;
    EXPECT_EQ(application.log().count(kAnother), losses) << "told once";
    other.kill(SIGKILL);
    other.wait();
    file.save(path, 3);
    EXPECT_EQ(savedIn(path), row.saved) << "what was lost is not taken over";
  }
}

/// Locks the whole file as earlier versions did, and prints the error number.
const RoleRegistration kLocks("lock-by-process", [](const std::vector<std::string>& arguments) {
  struct flock whole{};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  const int file = open(arguments[0].c_str(), O_RDWR | O_CREAT, 0600);
  std::cout << (fcntl(file, F_SETLK, &whole) == 0 ? 0 : errno) << std::endl;
  return pause();
});

/// Has the file, and ends before a child that was forked.
const RoleRegistration kForks("fork-and-end", [](const std::vector<std::string>& arguments) {
  RequestsFile file;
  file.save(arguments[0], queueOf(4));
  if (fork() != 0) _exit(0);
  std::cout << getpid() << std::endl;
  return pause();
});

TEST_F(RequestsFileTest, TheLockIsTheProcessesAndKnownToEarlierVersions) {
  {
    RoleProcess forking("fork-and-end", {path});
    const pid_t child = std::stoi(forking.readLine());
    EXPECT_EQ(forking.wait(), 0);
    RequestsFile file;
    EXPECT_EQ(file.load(path).size(), 4U);
    kill(child, SIGKILL);
    EXPECT_EQ(RoleProcess("lock-by-process", {lock}).readLine(), std::to_string(EAGAIN));
  }
  RoleProcess earlier("lock-by-process", {lock});
  EXPECT_EQ(earlier.readLine(), "0");
  EXPECT_TRUE(RequestsFile().load(path).empty());
  EXPECT_EQ(application.log().count(kAnother), 1U);
}

TEST_F(RequestsFileTest, IsSyncedWhenAskedOrEachTime) {
  fs::create_directory(place);
  SavedQueue saved;
  const auto syncsOf = [](const auto& action) {
    const DiskCalls before = DiskCalls::soFar();
    action();
    const DiskCalls after = DiskCalls::soFar();
    EXPECT_EQ(after.files - before.files, after.directories - before.directories);
    return after.files - before.files;
  };
  const auto saveThrice = [&] {
    for (std::size_t count : {1U, 2U, 3U}) saved.save(path, count);
  };
  const auto sync = [&] { saved.file.sync(path); };
  EXPECT_EQ(syncsOf(saveThrice), 0U);
  EXPECT_EQ(syncsOf(sync), 1U);
  EXPECT_EQ(syncsOf(sync), 0U);
  EXPECT_EQ(HostApplication::describe({.durability = Durability::PowerLoss}), nullptr);
  EXPECT_EQ(syncsOf(saveThrice), 3U);
  EXPECT_EQ(syncsOf(sync), 0U);
}

}  // namespace
}  // namespace orbiq::test
