// The end of the process, or of its use of the library, in the middle of anything.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <vector>

#include "orbiq/services/platform/http/TransferStay.h"
#include "tests/support/Application.h"
#include "tests/support/Role.h"
#include "tests/support/TemporaryDirectory.h"

namespace orbiq::test {
namespace {

constexpr char kSending[] = "sending";

/// Ends the process as it is told, when another thread has come to the step that it is told, or the
/// test has seen a hit arrive.
int endWithin(const std::vector<std::string>& arguments) {
  // Never destroyed: the library's threads log to the very end.
  static const auto* const step = new std::string(arguments.at(1));
  static std::atomic<bool> isReached = false;
  const std::string end = arguments.at(2);
  sigset_t seen;
  sigemptyset(&seen);
  sigaddset(&seen, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &seen, nullptr);
  // Registered first, so it runs after the library's own handler.
  std::atexit([] {
    if (TransferStay::isAnyUnderWay()) _exit(9);
  });
  static Application application(arguments.at(0), [&](HostDescription& host, Platform&) {
    host.libraryDirectory = arguments.at(3);
    host.logSink = [](const LogLine& line) {
      if (line.text.find(*step) == line.text.npos) return;
      isReached = true;
      isReached.notify_all();
    };
  });
  static struct UsesTheLibraryLate {
    ~UsesTheLibraryLate() {
      Application::tagger("late")->sendHit();
      orbiqAgent::sharedAgent().addRequestToQueue(streamingRequest());
    }
  } late;
  for (int i = 0; i < 50; ++i) orbiqAgent::sharedAgent().addRequestToQueue(streamingRequest());
  if (*step == kSending) {
    sigwaitinfo(&seen, nullptr);
  } else {
    isReached.wait(false);
  }
  end == "exit" ? std::exit(7) : std::quick_exit(7);
}
const RoleRegistration kEnd("end-within", endWithin);

TEST(Ending, InTheMiddleOfAnyStep) {
  for (const std::string step : {"Saving requests to cache", "Handling request", kSending}) {
    for (const std::string end : {"exit", "quick_exit"}) {
      // The second hit is answered in part; mostly over the same connection, on which nothing else
      // ends the wait.
      const Step answered = steps::send(answer(200));
      const Step begun = steps::send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf");
      ScriptedServer hits(
          {{steps::readRequest(), answered, steps::readRequest(), begun, steps::untilPeerCloses()},
           {steps::readRequest(), begun, steps::untilPeerCloses()}});
      AccountServer server;
      server.grantHost(hits.url("/"));
      const TemporaryDirectory library;
      RoleProcess process("end-within",
                          {server.authorizationServer(), step, end, library.path().string()});
      if (step == kSending) {
        ASSERT_TRUE(hits.waitForRequests(2));
        process.kill(SIGUSR1);
      }
      EXPECT_EQ(process.wait(), 7) << step << ", " << end;
    }
  }
}

}  // namespace
}  // namespace orbiq::test
