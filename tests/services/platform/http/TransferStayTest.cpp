#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "orbiq/services/platform/http/HttpClient.h"
#include "orbiq/services/platform/http/TransferStay.h"
#include "orbiq/services/platform/threads/ProcessExit.h"
#include "orbiq/services/platform/threads/Thread.h"
#include "tests/support/Role.h"

namespace orbiq::test {
namespace {

/// The code with which the application itself ends.
constexpr int kOwnCode = 7;

/// A thread of the library's whose stay ends after the exit has begun, and must not come out, and
/// one that never comes to park; the process ends all the same.
const RoleRegistration stays("exitDuringStays", [](const auto&) {
  static std::atomic<int> entered{0};
  prepareHttpForProcess();
  startThread("stays", [] {
    {
      const TransferStay stay(nullptr);
      ++entered;
      while (!isProcessExiting()) std::this_thread::yield();
    }
    _exit(9);
  });
  std::thread([] {
    const TransferStay stay(nullptr);
    ++entered;
    pause();
  }).detach();
  while (entered < 2) std::this_thread::yield();
  return kOwnCode;
});

TEST(ProcessExitTest, EndsWhateverTheThreadsAreDoing) {
  EXPECT_EQ(RoleProcess("exitDuringStays", {}).wait(), kOwnCode);
}

}  // namespace
}  // namespace orbiq::test
