// A disk that refuses, for a while.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "tests/support/Application.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/TemporaryDirectory.h"

namespace orbiq::test {
namespace {

namespace fs = std::filesystem;

TEST(Disk, IsFull) {
  const TemporaryDirectory directory;
  const std::string library = directory.path() / "library";
  fs::create_directory(library);
  if (!enterNamespaces(CLONE_NEWNS) ||
      mount("none", library.c_str(), "tmpfs", 0, "size=64k") != 0) {
    GTEST_SKIP() << "no mount of its own: " << std::strerror(errno);
  }
  // Hits are not answered, so they stay in the queue.
  const ClosedPort closed;
  Application application(
      "http://127.0.0.1:" + std::to_string(closed.port()) + "/",
      [&](HostDescription& host, Platform&) { host.libraryDirectory = library; });
  const auto fails = [&] {
    return application.log().count("(WARNING) : The requests can't be saved");
  };
  std::size_t added = 0;
  // Waits until the addition has been tried to be saved. What another process would find then.
  const auto add = [&] {
    orbiqAgent::sharedAgent().addRequestToQueue(streamingRequest());
    const std::string line = "We have now " + std::to_string(++added) + " request(s)";
    EXPECT_TRUE(application.log().waitFor(line));
    const std::string copy = directory.path() / ("copy " + std::to_string(added));
    fs::copy_file(library + "/orbiqCache/requests.ser", copy);
    return RequestsFile(copy).load().size();
  };
  std::size_t before = add();
  const std::string filler = library + "/filler";
  {
    std::ofstream file(filler);
    while (file.put('x').flush()) continue;
  }
  // The spare file is there already, but the longer queue needs another block at some time.
  std::size_t saved = before;
  while (fails() == 0 && added < 100) before = std::exchange(saved, add());
  ASSERT_EQ(fails(), 1U);
  EXPECT_EQ(saved, before);
  EXPECT_EQ(add(), before);
  EXPECT_EQ(fails(), 1U);
  fs::remove(filler);
  EXPECT_EQ(add(), added);
  EXPECT_EQ(application.log().count("(WARNING) : The requests are saved again to "), 1U);
}

}  // namespace
}  // namespace orbiq::test
