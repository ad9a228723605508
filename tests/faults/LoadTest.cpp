// Applications that never stop counting.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Application.h"
#include "tests/support/Torture.h"

namespace orbiq::test {
namespace {

TEST(Load, SixteenThreadsAddTenThousandHits) {
  constexpr std::size_t kThreads = 16;
  const std::size_t each = tortured(10'000, 160'000) / kThreads / 2;
  AccountServer server;
  std::atomic<std::size_t> hits{0};
  server.answerHits([&](const std::string&) {
    ++hits;
    return answer(200);
  });
  Application application(server.authorizationServer(), [](HostDescription& host, Platform&) {
    host.logSink = [](const LogLine&) {};
  });
  {
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < kThreads; ++i) {
      threads.emplace_back([i, each] {
        const auto tagger = Application::tagger("ABC" + std::to_string(i % 4));
        for (std::size_t hit = 0; hit < each; ++hit) {
          tagger->sendHit();
          orbiqAgent::sharedAgent().addRequestToQueue(streamingRequest());
          if (hit % 50 == i) Application::enterForeground();
        }
        EXPECT_TRUE(orbiqAgent::sharedAgent().flush(std::chrono::hours(1)));
      });
    }
  }
  const Statistics statistics = orbiqAgent::sharedAgent().statistics();
  EXPECT_EQ(statistics.accepted, kThreads * each * 2);
  EXPECT_EQ(statistics.sent, hits);
  EXPECT_EQ(statistics.sent + statistics.pushedOut, kThreads * each * 2);
}

TEST(Load, MoreThanTenThousandHitsDoNotWaitForOneSend) {
  AccountServer server;
  std::latch gate(1);
  server.answerHits([&](const std::string&) { return gate.wait(), answer(200); });
  Application application(server.authorizationServer());
  const auto tagger = Application::tagger("ABC");
  tagger->sendHit();
  ASSERT_TRUE(server.server().waitForRequests(2));
  const auto flush = [] { return orbiqAgent::sharedAgent().flush(std::chrono::hours(1)); };
  auto first = std::async(std::launch::async, flush);
  constexpr std::uint64_t kMore = 10'100;
  for (std::uint64_t i = 0; i < kMore; ++i) tagger->sendHit();
  // The handler may hold one more, which waits for the send to end.
  const Statistics stalled = orbiqAgent::sharedAgent().statistics();
  EXPECT_EQ(stalled.accepted, kMore + 1);
  EXPECT_GE(stalled.pushedOut, kMore - 10'001);
  EXPECT_LE(stalled.pushedOut, kMore - 10'000);
  EXPECT_GE(stalled.additionsWaitingHighWater, 10'000U);
  EXPECT_EQ(first.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  gate.count_down();
  EXPECT_TRUE(first.get());
  EXPECT_TRUE(flush());
  const Statistics settled = orbiqAgent::sharedAgent().statistics();
  EXPECT_EQ(settled.sent + settled.pushedOut, kMore + 1);
}

}  // namespace
}  // namespace orbiq::test
