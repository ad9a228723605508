// What stands below the files that are kept: descriptors and directories.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>

#include <thread>

#include "orbiq/services/platform/files/Descriptor.h"
#include "orbiq/services/platform/files/Directories.h"
#include "tests/support/TemporaryDirectory.h"

namespace orbiq::test {
namespace {

TEST(Directories, AreWholeWhateverTheUmask) {
  const TemporaryDirectory place;
  const std::string made = place.path() / "a";
  const mode_t before = umask(0177);
  EXPECT_EQ(makeDirectories(made + "/b"), 0);
  umask(before);
  struct stat status{};
  EXPECT_EQ(stat(made.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700U);
}

TEST(Descriptor, IsClosedBeforeItsThreadEnds) {
  // A thread that ended within a destructor would take the process along.
  std::thread([] {
    {
      const Descriptor file(open("/", O_PATH | O_CLOEXEC));
      pthread_cancel(pthread_self());
    }
    pthread_testcancel();
    ADD_FAILURE() << "the thread was not cancelled";
  }).join();
}

}  // namespace
}  // namespace orbiq::test
