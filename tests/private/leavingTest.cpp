// Leaving the process, whatever the agent is doing, and forking it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "orbiq/orbiq_c.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "orbiq/services/platform/http/TransferStay.h"
#include "tests/support/Application.h"
#include "tests/support/Role.h"
#include "tests/support/TemporaryDirectory.h"

namespace orbiq::test {
namespace {

/// What a host made before its first use of the loop, used by a timer on the library's thread.
struct UsedByATimer {
  std::atomic<bool> isUsed{false}, hasFired{false};
  ~UsedByATimer() {
    // Were the timer still to fire, one look would hardly do.
    for (int i = 0; i < 10'000; ++i, std::this_thread::yield()) {
      if (isUsed) _exit(1);
    }
  }
};
const RoleRegistration kTimer("end-beside-a-timer", [](const std::vector<std::string>&) {
  static UsedByATimer used;
  MainLoop::mainLoop().addTimer(std::chrono::nanoseconds(0), true, [] {
    used.isUsed = used.hasFired = true;
    std::this_thread::yield();  // the end waits a quarter of a second for it, whatever the load
    used.isUsed = false;
  });
  while (!used.hasFired) std::this_thread::yield();
  return 7;
});

TEST(Leaving, NoTimerFiresBesideStaticDestructors) {
  EXPECT_EQ(RoleProcess("end-beside-a-timer", {}).wait(), 7);
}

/// Uses the library when whatever it may keep for this thread is gone. That it uses none of that
/// is for the address sanitizer to see.
struct UsesTheLibraryLast {
  static void use(const char* serial, const char* asked) {
    Application::tagger(serial)->sendHit();
    orbiqAuthManager::manager().authForTagger(std::make_shared<orbiqTaggerID>(asked, 0, false));
  }
  ~UsesTheLibraryLast() {
    use("late", "last");
    orbiqAgent::sharedAgent().flush(std::chrono::hours(1));
  }
};
const RoleRegistration kLast("use-last", [](const auto& arguments) {
  static Application application(arguments.at(0), [](HostDescription& host, Platform&) {
    host.advertisingIdentifier = [] { return String("AD"); };
  });
  if (arguments.at(1) == "thread") {
    std::thread([] {
      thread_local UsesTheLibraryLast last;
      static_cast<void>(&last);
      UsesTheLibraryLast::use("ABC", "DEF");
    }).join();
    return 7;
  }
  if (arguments.at(1) == "exit, last made") UsesTheLibraryLast::use("ABC", "DEF");
  static UsesTheLibraryLast last;
  UsesTheLibraryLast::use("ABC", "GHI");
  return 7;
});

/// A thread waits for an answer that never comes, and is joined by a destructor.
const RoleRegistration kWaiting("exit-while-waiting", [](const auto& arguments) {
  static std::thread waits;
  static const struct Join {
    ~Join() { waits.join(); }
  } join;
  static Application application(arguments.at(0));
  const bool isFlush = arguments.at(1) == "flush";
  if (isFlush) Application::tagger("ABC")->sendHit();
  static std::promise<void> begins;
  waits = std::thread([isFlush] {
    begins.set_value();
    if (isFlush) orbiqAgent::sharedAgent().flush(std::chrono::hours(1));
    if (!isFlush) orbiqAuthManager::manager().authForTagger(streamingRequest()->taggerID());
  });
  begins.get_future().wait();
  while (!TransferStay::isAnyUnderWay()) std::this_thread::yield();
  return 7;
});

TEST(Leaving, WhatAThreadOfTheHostWaitsForEndsWithTheProcess) {
  // What the thread has of libcurl's is left as it is: OpenSSL may be gone by then.
  setenv("LSAN_OPTIONS", "detect_leaks=0", 1);
  for (const std::string waitsFor : {"flush", "exchange"}) {
    const ScriptedServer server({{steps::untilPeerCloses()}});
    EXPECT_EQ(RoleProcess("exit-while-waiting", {server.url("/"), waitsFor}).wait(), 7) << waitsFor;
  }
}

TEST(Leaving, DestructorsThatComeLateMayUseTheLibrary) {
  for (const std::string when : {"thread", "exit, first made", "exit, last made"}) {
    AccountServer server;
    EXPECT_EQ(RoleProcess("use-last", {server.authorizationServer(), when}).wait(), 7) << when;
    // The client of the exit's own thread is gone, but libcurl is not, before our exit handler.
    const std::size_t sent = when == "exit, first made" ? 0 : 1;
    EXPECT_EQ(server.requestLines("/auth/last").size(), sent) << when;
  }
}

/// Cancels, once and inside of the sink, the thread that logs such a line.
const RoleRegistration kCancel("cancel-in-the-sink", [](const auto& arguments) {
  // Never destroyed: the library's threads log to the very end.
  static const auto& step = *new std::string(arguments.at(1));
  static std::atomic<bool> isCancelled{false};
  static Application application(arguments.at(0), [](HostDescription& host, Platform&) {
    host.logSink = [sink = host.logSink](const LogLine& line) {
      sink(line);
      if (line.text.find(step) == line.text.npos || isCancelled.exchange(true)) return;
      pthread_cancel(pthread_self());
      pthread_testcancel();
    };
  });
  for (int i = 0; i < 2; ++i) {
    std::thread([] {
      orbiq_tagger* tagger = nullptr;
      orbiq_tagger_with_serial("ABC", &tagger);
      orbiq_tagger_send_hit(tagger);
    }).join();
  }
  const bool isSettled = orbiqAgent::sharedAgent().flush(std::chrono::hours(1));
  // Of the first thread, the hit was perhaps not taken.
  return isSettled && isCancelled && orbiqAgent::sharedAgent().statistics().sent > 0 ? 7 : 1;
});

TEST(Leaving, AThreadMayBeCancelledInTheSinkAndLeavesNothingLocked) {
  for (const std::string step :
       {"A new orbiqAudienceTagger", "Can't get did", "Adding a request"}) {
    AccountServer server;
    RoleProcess process("cancel-in-the-sink", {server.authorizationServer(), step});
    EXPECT_EQ(process.wait(), 7) << step;
  }
}

/// Whether the library keeps still in a forked child, and says so though the time zone is locked.
int liveAsForkedChild(const Application& application, orbiqAudienceTagger& tagger) {
  alarm(60);  // it is given up
  const std::size_t before = application.log().lines().size();
  SystemLog::setSink(nullptr);
  tagger.sendHit();
  SystemLog::setSink(HostApplication::current().logSink);
  Application::tagger("other")->sendHit();
  orbiqAgent::sharedAgent().addRequestToQueue(streamingRequest());
  Application::enterForeground();
  if (orbiqAgent::sharedAgent().flush(std::chrono::hours(1))) return 1;
  if (orbiqAgent::sharedAgent().statistics().accepted != 0) return 2;
  if (!orbiqKWDXUUIDHandler::UUID().isNull()) return 3;
  return application.log().lines().size() == before ? 0 : 4;
}

TEST(Leaving, AForkedChildDoesNothingAndDoesNotDisturbTheParent) {
  AccountServer server;
  Application application(server.authorizationServer());
  const auto tagger = Application::tagger("ABC");
  tagger->sendHit();
  ASSERT_TRUE(application.log().waitFor("We have now 0 request(s) to handle"));
  orbiqKWDXUUIDHandler::UUID();  // made, and looked up at the next call
  const TemporaryDirectory place;
  const std::string zone = place.path() / "zone";
  ASSERT_EQ(mkfifo(zone.c_str(), 0600), 0);
  setenv("TZ", (":" + zone).c_str(), 1);
  // Reads the time zone, with the C library's lock, until the pipe is closed.
  std::thread holder(tzset);
  const int writer = open(zone.c_str(), O_WRONLY | O_CLOEXEC);
  const pid_t child = fork();
  if (child == 0) _exit(liveAsForkedChild(application, *tagger));
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  close(writer);
  holder.join();
  tagger->sendHit();
  ASSERT_TRUE(application.log().waitFor("handling done", 2));
  EXPECT_EQ(server.requestLines("/hit/").size(), 2U);
}

}  // namespace
}  // namespace orbiq::test
