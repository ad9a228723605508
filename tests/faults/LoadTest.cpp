// Kernels that chatter, applications that never stop counting.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Application.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Torture.h"

namespace orbiq::test {
namespace {

using Counts = std::vector<std::uint64_t>;

TEST(Load, ABurstOfRouteMessages) {
  std::string refusal;
  const auto network = NetworkNamespace::enter(refusal);
  if (!network) GTEST_SKIP() << refusal;
  network->addVethPair("near", "far");
  network->addAddress("near", "10.9.0.1/24");
  network->setUp("near");
  network->setUp("far");
  network->addDefaultRoute("via 10.9.0.2");
  AccountServer server;
  Application application(server.authorizationServer());
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  agent.addRequestToQueue(streamingRequest());
  ASSERT_TRUE(application.log().waitFor("handling done", 1));

  // More than the socket's buffer takes, with the way out gone at the end.
  const TemporaryDirectory directory;
  const std::string batch = directory.path() / "batch";
  {
    std::ofstream commands(batch);
    for (std::size_t i = 0; i < tortured(4'000, 40'000); ++i) {
      const std::string route = "10." + std::to_string(10 + i / 65'536) + "." +
                                std::to_string(i / 256 % 256) + "." + std::to_string(i % 256);
      commands << "route add " << route << " dev near\n";
    }
    commands << "route del default via 10.9.0.2\n";
  }
  network->ip("-batch " + batch);
  agent.addRequestToQueue(streamingRequest());
  ASSERT_TRUE(application.log().waitFor("We have now 1 request(s) to handle", 2));
  EXPECT_EQ(server.requestLines("/hit/").size(), 1U);
  network->addDefaultRoute("via 10.9.0.2");
  ASSERT_TRUE(application.log().waitFor("handling done", 2));
  ASSERT_TRUE(application.log().waitFor("We have now 0 request(s) to handle", 2));
  EXPECT_EQ(counts(agent.statistics()), (Counts{2, 2, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(Load, SixteenThreadsAddTenThousandHits) {
  constexpr std::size_t kThreads = 16;
  const std::size_t each = tortured(10'000, 160'000) / kThreads;
  AccountServer server;
  std::atomic<std::size_t> hits{0};
  server.answerHits([&](const std::string&) {
    ++hits;
    return answer(200);
  });
  Application application(server.authorizationServer(), [](HostDescription& host, Platform&) {
    host.logSink = [](const LogLine&) {};
  });
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([i, each] {
      std::mt19937 random(static_cast<unsigned>(i));
      const auto tagger = Application::tagger("ABC" + std::to_string(i % 4));
      for (std::size_t hit = 0; hit < each; ++hit) {
        if (random() % 2 == 0) {
          tagger->sendHit();
        } else {
          orbiqAgent::sharedAgent().addRequestToQueue(streamingRequest());
        }
        for (auto spins = random() % 20; spins > 0; --spins) std::this_thread::yield();
        if (hit % 50 == i) Application::enterForeground();
      }
      EXPECT_TRUE(orbiqAgent::sharedAgent().flush(std::chrono::hours(1)));
    });
  }
  for (std::thread& thread : threads) thread.join();
  const Statistics statistics = orbiqAgent::sharedAgent().statistics();
  EXPECT_EQ(statistics.accepted, kThreads * each);
  EXPECT_EQ(statistics.sent, hits);
  EXPECT_EQ(statistics.sent + statistics.pushedOut, kThreads * each);
}

TEST(Load, MoreThanTenThousandHitsDoNotWaitForOneSend) {
  AccountServer server;
  Gate gate;
  server.answerHits([&](const std::string&) { return gate.pass(), answer(200); });
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
  gate.open();
  EXPECT_TRUE(first.get());
  EXPECT_TRUE(flush());
  const Statistics settled = orbiqAgent::sharedAgent().statistics();
  EXPECT_EQ(settled.sent + settled.pushedOut, kMore + 1);
}

}  // namespace
}  // namespace orbiq::test
