#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <future>
#include <iostream>
#include <string>
#include <thread>

#include "orbiq/services/platform/base/ForkGuard.h"
#include "orbiq/services/platform/http/HttpClient.h"
#include "orbiq/services/platform/http/TransferStay.h"
#include "orbiq/services/platform/threads/ProcessExit.h"
#include "orbiq/services/platform/threads/Thread.h"
#include "tests/support/HttpExpectations.h"
#include "tests/support/Role.h"
#include "tests/support/ScriptedServer.h"

namespace orbiq::test {
namespace {

using namespace std::chrono_literals;

/// The code with which the application itself ends.
constexpr int kOwnCode = 7;
constexpr int kBroken = 9;

/// Has a timeout longer than any test may take, so that an exit that waits for it does not pass.
HttpResult sendEndlessly(HttpClient& client, const std::string& url) {
  HttpRequest request = requestFor(url);
  request.timeout = 1h;
  return client.send(request);
}

sigset_t blockTerminationSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

/// Runs after the library's exit handler, being registered before it.
void checkAfterHandler() {
  if (!isProcessExiting() || TransferStay::isAnyUnderWay()) _exit(kBroken);
}

/// Arguments: the URL, the CA bundle, and which thread exits.
const RoleRegistration exitWhileSending("exitWhileSending", [](const auto& arguments) {
  const sigset_t signals = blockTerminationSignal();
  const bool onLibraryThread = arguments.at(2) == "library";
  if (!onLibraryThread) std::atexit(checkAfterHandler);
  prepareHttpForProcess();
  // Sends twice; the second time over a connection at rest, on which only the handler wakes it.
  startThread("sender", [url = arguments.at(0), bundle = arguments.at(1)] {
    const auto client = makeHttpClient(bundle);
    sendEndlessly(*client, url);
    sendEndlessly(*client, url);
    std::cout << "returned" << std::endl;
  });
  const auto exitWhenTold = [signals] {
    sigwaitinfo(&signals, nullptr);
    std::exit(kOwnCode);
  };
  if (!onLibraryThread) exitWhenTold();
  startThread("another", exitWhenTold);
  for (;;) pause();
  return kBroken;
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
    std::this_thread::sleep_for(50ms);
  });
  prepareHttpForProcess();
  startStay([] {
    while (!isProcessExiting()) std::this_thread::yield();
  });
  while (!TransferStay::isAnyUnderWay()) std::this_thread::yield();
  return kOwnCode;
});

const RoleRegistration exitInForkedChild("exitInForkedChild", [](const auto& arguments) {
  const sigset_t signals = blockTerminationSignal();
  static int childCode = kBroken;
  // Only the child's code is of interest; it does not go on to what looks for the memory of threads
  // that it does not have.
  std::atexit([] {
    if (inForkedChild()) _exit(isProcessExiting() ? kBroken : childCode);
  });
  prepareHttpForProcess();
  const std::jthread sender([&] {
    const HttpResult result = sendEndlessly(*makeHttpClient(""), arguments.at(0));
    std::cout << result.data.value_or("no data") << std::endl;
  });
  sigwaitinfo(&signals, nullptr);
  const pid_t child = fork();
  if (child == 0) {
    const HttpResult result = sendEndlessly(*makeHttpClient(""), arguments.at(0));
    if (!result.response && result.error) childCode = kOwnCode;
    std::exit(kBroken);
  }
  int status = 0;
  waitpid(child, &status, 0);
  std::cout << WEXITSTATUS(status) << std::endl;
  return 0;
});

/// The process is told to exit once its request has arrived, and must be gone while the server
/// still holds the answer, or the rest of it, back.
TEST(ProcessExitTest, parksTheSenderAndKeepsTheExitCode) {
  const CertificateAuthority authority;
  const TlsIdentity identity = authority.issue();
  const struct {
    const char* sent;
    const TlsIdentity* tls;
    const char* exitingThread;
  } cases[] = {
      {"", nullptr, "main"},
      {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf", nullptr, "main"},
      {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf", &identity, "main"},
      {"", nullptr, "library"},
  };
  for (const auto& [sent, tls, exitingThread] : cases) {
    const ScriptedServer server(
        {{steps::readRequest(), steps::send(answer(200)), steps::readRequest(), steps::send(sent),
          steps::untilPeerCloses()}},
        tls);
    RoleProcess process("exitWhileSending", {server.url(), authority.bundle(), exitingThread});
    ASSERT_TRUE(server.waitForRequests(2));
    process.kill(SIGTERM);
    EXPECT_EQ(process.readLine(), "");
    EXPECT_EQ(process.wait(), kOwnCode);
    EXPECT_TRUE(server.waitForClientsGone(1));
  }
}

TEST(ProcessExitTest, endsWhateverTheThreadsAreDoing) {
  for (const char* role : {"exitWithOneThatCannotPark", "leaveAndEnterDuringExit"}) {
    EXPECT_EQ(RoleProcess(role, {}).wait(), kOwnCode) << role;
  }
}

TEST(ProcessExitTest, leavesTheParentOfAForkedChildAlone) {
  std::promise<void> childIsGone;
  const ScriptedServer server(
      {{steps::readRequest(), [&](ServedConnection&) { childIsGone.get_future().wait(); },
        steps::send(answer(200, "still here"))}});
  RoleProcess process("exitInForkedChild", {server.url()});
  EXPECT_TRUE(server.waitForRequests(1));
  process.kill(SIGTERM);
  EXPECT_EQ(process.readLine(), std::to_string(kOwnCode));
  childIsGone.set_value();
  EXPECT_EQ(process.readLine(), "still here");
  EXPECT_EQ(process.wait(), 0);
  EXPECT_EQ(server.connectionCount(), 1u);
}

}  // namespace
}  // namespace orbiq::test
