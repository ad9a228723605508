#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "orbiq/services/platform/http/HttpClient.h"
#include "orbiq/services/platform/http/TransferStay.h"
#include "tests/support/Role.h"

namespace orbiq::test {
namespace {

/// The code with which the application itself ends.
constexpr int kOwnCode = 7;

/// A thread that never comes to park; the process ends all the same.
const RoleRegistration cannotPark("exitWithOneThatCannotPark", [](const auto&) {
  prepareHttpForProcess();
  std::thread([] {
    const TransferStay stay(nullptr);
    pause();
  }).detach();
  while (!TransferStay::isAnyUnderWay()) std::this_thread::yield();
  return kOwnCode;
});

TEST(ProcessExitTest, EndsThoughAThreadCannotPark) {
  EXPECT_EQ(RoleProcess("exitWithOneThatCannotPark", {}).wait(), kOwnCode);
}

}  // namespace
}  // namespace orbiq::test
