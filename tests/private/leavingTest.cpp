// Leaving the process, whatever the agent is doing, and forking it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "tests/support/Application.h"
#include "tests/support/Role.h"

namespace orbiq::test {
namespace {

/// A hit whose exchange the server holds up; then the end in the way that the test names.
int endInTheMiddle(const std::vector<std::string>& arguments) {
  const std::string& server = arguments.at(0);
  const std::string& end = arguments.at(1);
  static Application application(server);
  static struct UsesTheLibraryLate {
    ~UsesTheLibraryLate() { Application::tagger("late")->sendHit(); }
  } late;
  if (end == "idle") {
    orbiqAgent::sharedAgent();
    return 7;
  }
  Application::tagger("ABC")->sendHit();
  if (getchar() == EOF) return 1;  // until the server has the request
  if (end == "quick_exit") std::quick_exit(7);
  return 7;
}
const RoleRegistration kEnd("end-in-the-middle", endInTheMiddle);

TEST(Leaving, AStalledSendDoesNotHoldUpTheEnd) {
  // The limit of an exchange is a minute: a process that waited for it would outlive this test's.
  for (const std::string end : {"return", "quick_exit", "idle"}) {
    ScriptedServer server({{steps::readRequest(), steps::untilPeerCloses()}});
    int input[2];
    ASSERT_EQ(pipe(input), 0);
    dup2(input[0], STDIN_FILENO);
    RoleProcess process("end-in-the-middle", {server.url("/"), end});
    if (end != "idle") {
      ASSERT_TRUE(server.waitForRequests(1));
    }
    ASSERT_EQ(write(input[1], "\n", 1), 1);
    EXPECT_EQ(process.wait(), 7) << end;
    close(input[0]);
    close(input[1]);
  }
}

/// What a host made before its first use of the loop, used by a timer on the library's thread.
struct UsedByATimer {
  std::atomic<bool> isUsed{false};
  ~UsedByATimer() {
    // Were the timer still to fire, one look would hardly do.
    for (int i = 0; i < 10'000; ++i, std::this_thread::yield()) {
      if (isUsed) _exit(1);
    }
  }
};
const RoleRegistration kTimer("end-beside-a-timer", [](const std::vector<std::string>&) {
  static UsedByATimer used;
  static std::promise<void> fired;
  MainLoop::mainLoop().addTimer(std::chrono::nanoseconds(0), true, [count = 0]() mutable {
    used.isUsed = true;
    if (++count == 1) fired.set_value();
    for (int i = 0; i < 100; ++i) std::this_thread::yield();
    used.isUsed = false;
  });
  fired.get_future().wait();
  return 7;
});

TEST(Leaving, NoTimerFiresBesideStaticDestructors) {
  EXPECT_EQ(RoleProcess("end-beside-a-timer", {}).wait(), 7);
}

TEST(Leaving, AForkedChildDoesNothingAndDoesNotDisturbTheParent) {
  AccountServer server;
  Application application(server.authorizationServer());
  const auto tagger = Application::tagger("ABC");
  tagger->sendHit();
  ASSERT_TRUE(application.log().waitFor("We have now 0 request(s) to handle"));
  const pid_t child = fork();
  if (child == 0) {
    const std::size_t before = application.log().lines().size();
    tagger->sendHit();
    Application::tagger("other")->sendHit();
    orbiqAgent::sharedAgent().addRequestToQueue(streamingRequest());
    Application::enterForeground();
    const bool saidSoOnce =
        application.log().lines().size() == before + 1 &&
        application.log().count("(ERROR) : This process was forked from one that uses") == 1;
    _exit(saidSoOnce && orbiqAgent::sharedAgent().statistics().accepted == 0 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  tagger->sendHit();
  ASSERT_TRUE(application.log().waitFor("handling done", 2));
  EXPECT_EQ(server.requestLines("/hit/").size(), 2U);
}

int streamUntilKilled(const std::vector<std::string>& arguments) {
  Application application(arguments.at(0));
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  agent.addRequestToQueue(streamingRequest(SendingModeHost, "stream"));
  if (!application.log().waitFor("handling resulted in a timeout")) return 1;
  Application::tagger("ABC")->sendHit();
  if (!application.log().waitFor("We have now 2 request(s) to handle")) return 1;
  puts("saved");
  fflush(stdout);
  return pause();
}
const RoleRegistration kStream("stream-until-killed", streamUntilKilled);

TEST(Leaving, AStreamingRequestSurvivesAKillAndIsSentAfterTheRestart) {
  AccountServer server;
  ScriptedServer hits({{steps::readRequest(), steps::reset()},
                       {steps::readRequest(), steps::send(answer(200)), steps::untilPeerCloses()}});
  server.answerAuthorizations([&](const std::string&) {
    return answer(200, "access=full|host=" + hits.url("/") + "|cmsVI=7");
  });
  {
    RoleProcess process("stream-until-killed", {server.authorizationServer()});
    ASSERT_EQ(process.readLine(), "saved");
    process.kill(SIGKILL);
    EXPECT_EQ(process.wait(), 128 + SIGKILL);
  }
  Application application(server.authorizationServer());
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  EXPECT_EQ(counts(agent.statistics()), (std::vector<std::uint64_t>{2, 0, 0, 0, 0, 0, 1, 0, 1}));
  // It comes back with its failure and its authorization, so it waits for its minute, and goes to
  // the host that it was granted.
  application.clock().advance(60);
  Application::enterForeground();
  ASSERT_TRUE(application.log().waitFor("We have now 0 request(s) to handle"));
  EXPECT_EQ(requestTarget(hits.requests().back()), "/stream");
  EXPECT_EQ(hits.requests().size(), 2U);
  EXPECT_EQ(server.requestLines("/auth/").size(), 1U);
  EXPECT_EQ(counts(agent.statistics()), (std::vector<std::uint64_t>{2, 1, 0, 0, 0, 0, 1, 0, 0}));
}

}  // namespace
}  // namespace orbiq::test
