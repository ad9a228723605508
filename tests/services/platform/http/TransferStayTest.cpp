#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "orbiq/services/platform/http/HttpClient.h"
#include "orbiq/services/platform/http/TransferStay.h"
#include "orbiq/services/platform/threads/ProcessExit.h"
#include "tests/support/Role.h"

namespace orbiq::test {
namespace {

/// The code with which the application itself ends.
constexpr int kOwnCode = 7;
constexpr int kBroken = 9;

/// Starts a thread that makes a stay, during which it does this; no such thread may come out again.
void startStay(void (*doInside)()) {
  std::thread([=] {
    {
      const TransferStay stay(nullptr);
      doInside();
    }
    _exit(kBroken);
  }).detach();
}

/// A thread that never comes to park; the process ends all the same.
const RoleRegistration cannotPark("exitWithOneThatCannotPark", [](const auto&) {
  prepareHttpForProcess();
  startStay([] { pause(); });
  while (!TransferStay::isAnyUnderWay()) std::this_thread::yield();
  return kOwnCode;
});

/// A thread whose stay ends after the exit has begun, and one whose stay would begin then.
const RoleRegistration leaveAndEnter("leaveAndEnterDuringExit", [](const auto&) {
  std::atexit([] {
    // Registered first, so this runs after the library's own handler.
    if (!isProcessExiting() || TransferStay::isAnyUnderWay()) _exit(kBroken);
    startStay([] {});
    // What must not happen cannot be awaited; it gets its chance.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  });
  prepareHttpForProcess();
  startStay([] {
    while (!isProcessExiting()) std::this_thread::yield();
  });
  while (!TransferStay::isAnyUnderWay()) std::this_thread::yield();
  return kOwnCode;
});

TEST(ProcessExitTest, endsWhateverTheThreadsAreDoing) {
  for (const char* role : {"exitWithOneThatCannotPark", "leaveAndEnterDuringExit"}) {
    EXPECT_EQ(RoleProcess(role, {}).wait(), kOwnCode) << role;
  }
}

}  // namespace
}  // namespace orbiq::test
