#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "orbiq/services/platform/http/HttpClient.h"
#include "orbiq/services/platform/http/TransferStay.h"
#include "orbiq/services/platform/threads/ProcessExit.h"
#include "orbiq/services/platform/threads/Thread.h"
#include "tests/support/HttpExpectations.h"
#include "tests/support/Role.h"
#include "tests/support/ScriptedServer.h"

namespace orbiq::test {
namespace {

/// The code with which the application itself ends.
constexpr int kOwnCode = 7;
constexpr int kBroken = 9;

/// Runs after the library's exit handler, being registered before it.
void checkAfterHandler() {
  if (!isProcessExiting() || TransferStay::isAnyUnderWay()) _exit(kBroken);
}

/// Arguments: the URL, and the CA bundle.
const RoleRegistration exitWhileSending("exitWhileSending", [](const auto& arguments) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::atexit(checkAfterHandler);
  prepareHttpForProcess();
  // Sends twice; the second time over a connection at rest, on which only the handler wakes it.
  startThread("sender", [url = arguments.at(0), bundle = arguments.at(1)] {
    const auto client = makeHttpClient(bundle);
    HttpRequest request = requestFor(url);
    request.timeout = std::chrono::hours(1);  // an exit that waits for it does not pass
    client->send(request);
    client->send(request);
    _exit(kBroken);
  });
  sigwaitinfo(&signals, nullptr);
  return kOwnCode;
});

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
    checkAfterHandler();
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

/// The process is told to exit once its request has arrived, and must be gone while the server
/// still holds the rest of the answer back.
TEST(ProcessExitTest, parksTheSenderAndKeepsTheExitCode) {
  const CertificateAuthority authority;
  const TlsIdentity identity = authority.issue();
  const TlsIdentity* const plain = nullptr;
  for (const TlsIdentity* tls : {plain, &identity}) {
    const ScriptedServer server(
        {{steps::readRequest(), steps::send(answer(200)), steps::readRequest(),
          steps::send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf"),
          steps::untilPeerCloses()}},
        tls);
    RoleProcess process("exitWhileSending", {server.url(), authority.bundle()});
    ASSERT_TRUE(server.waitForRequests(2));
    process.kill(SIGTERM);
    EXPECT_EQ(process.wait(), kOwnCode);
  }
}

TEST(ProcessExitTest, endsWhateverTheThreadsAreDoing) {
  for (const char* role : {"exitWithOneThatCannotPark", "leaveAndEnterDuringExit"}) {
    EXPECT_EQ(RoleProcess(role, {}).wait(), kOwnCode) << role;
  }
}

}  // namespace
}  // namespace orbiq::test
