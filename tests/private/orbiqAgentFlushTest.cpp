// Waiting until hits are settled. Where a wait would not end, the test is ended from outside.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <future>
#include <latch>
#include <string>
#include <vector>

#include "orbiq/orbiq_c.h"
#include "tests/support/Application.h"

namespace orbiq::test {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;

bool flush(milliseconds timeout) { return orbiqAgent::sharedAgent().flush(timeout); }

TEST(Flush, EndsWithItsHitsOrItsTime) {
  AccountServer server;
  std::latch gate(1);
  server.answerHits([&](const std::string&) { return gate.wait(), answer(200); });
  const Application application(server.authorizationServer());
  EXPECT_TRUE(flush(milliseconds::min()));  // nothing was accepted yet
  const auto tagger = Application::tagger("ABC");
  tagger->sendHit();
  for (const milliseconds time : {milliseconds::min(), milliseconds(-1), milliseconds(2)}) {
    EXPECT_FALSE(flush(time));
  }
  for (const double seconds : {-1.0, std::nan("")}) {
    EXPECT_EQ(orbiq_flush(seconds), ORBIQ_ERROR_ARGUMENT);
  }
  EXPECT_EQ(orbiq_flush(1e-9), ORBIQ_ERROR_TIMEOUT);
  auto another = std::async(std::launch::async, [] { return flush(milliseconds::max()); });
  gate.count_down();
  EXPECT_EQ(orbiq_flush(HUGE_VAL), ORBIQ_OK);
  EXPECT_TRUE(another.get());
}

TEST(Flush, EndsWhenTheFileNoLongerHasTheHit) {
  AccountServer server;
  std::vector<std::uint64_t> sentAtSaves;
  const Application application(
      server.authorizationServer(), [&](HostDescription& host, Platform& /*platform*/) {
        host.logSink = [&](const LogLine& line) {
          if (line.text.ends_with("Saving requests to cache"))
            sentAtSaves.push_back(orbiqAgent::sharedAgent().statistics().sent);
        };
      });
  Application::tagger("ABC")->sendHit();
  EXPECT_TRUE(flush(hours(1)));
  EXPECT_EQ(sentAtSaves, std::vector<std::uint64_t>(2));
}

TEST(Flush, WaitsForNoLaterHits) {
  AccountServer server;
  // Before one is settled there is another: there is never none.
  server.answerHits([](const std::string&) {
    Application::tagger("ABC")->sendHit();
    return answer(200);
  });
  const Application application(server.authorizationServer());
  Application::tagger("ABC")->sendHit();
  EXPECT_TRUE(flush(hours(1)));
  EXPECT_NE(orbiqAgent::sharedAgent().statistics().pending, 0U);
}

TEST(Flush, HoldsUpNeitherTheSinkNorTheLibrarysThreads) {
  AccountServer server;
  std::latch gate(1);
  server.answerHits([&](const std::string&) { return gate.wait(), answer(200); });
  std::promise<bool> inSink;
  const Application application(server.authorizationServer(),
                                [&](HostDescription& host, Platform& /*platform*/) {
                                  host.logSink = [&, record = host.logSink](const LogLine& line) {
                                    record(line);
                                    if (line.text.ends_with("A line of the application"))
                                      inSink.set_value(flush(hours(1)));
                                  };
                                });
  Application::tagger("ABC")->sendHit();
  std::promise<bool> onLoop;
  MainLoop::mainLoop().post([&] { onLoop.set_value(flush(hours(1))); });
  EXPECT_FALSE(onLoop.get_future().get());
  orbiqLogger::log_withMode("A line of the application", LoggingModeError);
  EXPECT_FALSE(inSink.get_future().get());
  gate.count_down();
  EXPECT_TRUE(flush(hours(1)));
}

}  // namespace
}  // namespace orbiq::test
