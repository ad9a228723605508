// A disk that refuses, for a while.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "tests/support/Application.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/TemporaryDirectory.h"

namespace orbiq::test {
namespace {

namespace fs = std::filesystem;

constexpr char kFails[] = "(WARNING) : The requests can't be saved to ";
constexpr char kWorksAgain[] = "(WARNING) : The requests are saved again to ";

/// An agent whose hits are not answered, so that they stay in the queue.
class Disk : public testing::Test {
 protected:
  void start() {
    _application = std::make_unique<Application>(
        "http://127.0.0.1:" + std::to_string(_closed.port()) + "/",
        [&](HostDescription& host, Platform&) { host.libraryDirectory = library; });
    add(1);
  }
  /// Waits until the additions have been tried to be saved.
  void add(std::size_t requests) {
    for (std::size_t i = 0; i < requests; ++i) {
      orbiqAgent::sharedAgent().addRequestToQueue(streamingRequest());
      const std::string line = "We have now " + std::to_string(++_added) + " request(s)";
      ASSERT_TRUE(_application->log().waitFor(line));
    }
  }
  std::size_t told(const char* line) { return _application->log().count(line); }
  /// What another process would find.
  std::size_t saved() {
    fs::copy(cache, copies.path() / "copy", fs::copy_options::recursive);
    const auto size = RequestsFile().load((copies.path() / "copy/requests.ser").string()).size();
    fs::remove_all(copies.path() / "copy");
    return size;
  }
  const TemporaryDirectory directory;
  const std::string library = directory.path() / "library";
  const std::string cache = library + "/orbiqCache";

  const TemporaryDirectory copies;

  std::unique_ptr<Application> _application;

 private:
  const ClosedPort _closed;
  std::size_t _added = 0;
};

TEST_F(Disk, IsFull) {
  fs::create_directory(library);
  if (!enterNamespaces(CLONE_NEWNS) ||
      mount("none", library.c_str(), "tmpfs", 0, "size=64k") != 0) {
    GTEST_SKIP() << "no mount of its own: " << std::strerror(errno);
  }
  start();
  const std::string filler = library + "/filler";
  const auto fill = [&] {
    std::ofstream file(filler);
    while (file.put('x').flush()) continue;
  };
  fill();
  // The spare file is there already, but the longer queue needs another block at some time.
  std::size_t before = 0;
  while (told(kFails) == 0 && before < 100) {
    ASSERT_NO_FATAL_FAILURE(add(1));
    before = saved();
  }
  ASSERT_EQ(told(kFails), 1U);
  add(3);
  EXPECT_EQ(told(kFails), 1U);
  EXPECT_EQ(saved(), before);
  fs::remove(filler);
  add(1);
  EXPECT_EQ(told(kWorksAgain), 1U);
  EXPECT_EQ(saved(), orbiqAgent::sharedAgent().statistics().pending);
}

TEST_F(Disk, HasSomethingElseInTheFilesPlace) {
  start();
  add(2);
  fs::rename(cache + "/requests.ser", cache + "/aside");
  fs::create_directories(cache + "/requests.ser/in the way");
  add(3);
  EXPECT_EQ(told(kFails), 1U);
  EXPECT_EQ(told("requests.ser: Is a directory"), 1U);
  fs::remove_all(cache + "/requests.ser");
  fs::rename(cache + "/aside", cache + "/requests.ser");
  EXPECT_EQ(saved(), 3U);
  add(1);
  EXPECT_EQ(told(kWorksAgain), 1U);
  EXPECT_EQ(saved(), 7U);
  fs::remove_all(cache);
  add(1);
  EXPECT_EQ(saved(), 8U);
}

}  // namespace
}  // namespace orbiq::test
