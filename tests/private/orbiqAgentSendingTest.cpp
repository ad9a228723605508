// The road of a hit, from sendHit to the wire.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "orbiq/private/orbiqAgent/SendingRules.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "tests/support/Application.h"

namespace orbiq::test {
namespace {

using namespace std::chrono_literals;
using Counts = std::vector<std::uint64_t>;
using Lines = std::vector<std::string>;

constexpr char kKept[] = "handling resulted in a timeout or lack of connection";

using TimeLimits = std::vector<std::chrono::milliseconds>;

/// Notes what time limits it is given.
struct NotingClient final : HttpClient {
  explicit NotingClient(std::shared_ptr<TimeLimits> limits) : asked(std::move(limits)) {}
  HttpResult send(const HttpRequest& request) override {
    asked->push_back(request.timeout);
    return real->send(request);
  }
  const std::shared_ptr<TimeLimits> asked;
  const std::unique_ptr<HttpClient> real = makeHttpClient("");
};

class Road : public testing::Test {
 protected:
  [[nodiscard]] bool waitForRemovals(std::size_t count) {
    return application.log().waitFor("Removing request from queue", count) &&
           // The line that ends a removal, and those that end the additions.
           application.log().waitFor("We have now", 2 * count);
  }
  Counts accounts() { return counts(agent().statistics()); }
  static orbiqAgent& agent() { return orbiqAgent::sharedAgent(); }

  const std::shared_ptr<TimeLimits> limits = std::make_shared<TimeLimits>();
  AccountServer server;
  Application application{
      server.authorizationServer(), [this](HostDescription&, Platform& platform) {
        platform.makeHttpClient = [this] { return std::make_unique<NotingClient>(limits); };
      }};
};

TEST_F(Road, AHitIsAGetOfTheHostAndTheSerial) {
  const auto tagger = Application::tagger("ABC");
  tagger->sendHit();
  ASSERT_TRUE(waitForRemovals(1));
  tagger->sendHit();
  ASSERT_TRUE(waitForRemovals(2));
  const std::string rest =
      " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.server().port()) +
      "\r\nUser-Agent: Player/4.2 orbiq SDK v4.2 apple iphone\r\n\r\n";
  EXPECT_EQ(server.server().requests(),
            (Lines{"GET /auth/ABC" + rest, "GET /hit/ABC" + rest, "GET /hit/ABC" + rest}));
  EXPECT_EQ(server.server().connectionCount(), 1U);
  EXPECT_EQ(accounts(), (Counts{2, 2, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(agent().statistics().lastSuccess, application.clock().now());
  EXPECT_EQ(*limits, (TimeLimits{60'000ms, 10'000ms, 10'000ms}));
}

TEST_F(Road, WhatMayNotBeSentIsDropped) {
  server.answerAuthorizations([this](const std::string& head) {
    return answer(200, server.grant(requestTarget(head) == "/auth/DEN" ? "denied" : "restricted"));
  });
  Application::tagger("DEN")->sendHit();
  ASSERT_TRUE(waitForRemovals(1));
  EXPECT_EQ(application.log().count("can't be sent because of access denied for its serial"), 1U);
  EXPECT_EQ(agent().statistics().lastFailure, "DEN: the account is denied");
  // A restricted account sends one hit, also where others were queued before.
  const auto tagger = std::make_shared<orbiqTaggerID>("ABC", INTPTR_MAX, false);
  for (int i = 0; i < 2; ++i) {
    agent().addRequestToQueue(std::make_shared<orbiqRequest>(nullptr, RequestTypeAudience,
                                                             SendingModeHost, "ABC", tagger));
  }
  ASSERT_TRUE(waitForRemovals(3));
  Application::tagger("DEN")->sendHit();
  EXPECT_EQ(agent().statistics().lastFailure, "DEN: the account is denied");
  Application::tagger("ABC")->sendHit();  // refused at the gate, without a line
  EXPECT_EQ(agent().statistics().lastFailure,
            "ABC: the account is restricted and has sent its hit");
  orbiqAudienceTagger().sendHit();
  Application::tagger(nullptr)->sendHit();
  ASSERT_TRUE(waitForRemovals(5));
  EXPECT_EQ(accounts(), (Counts{7, 1, 6, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(agent().statistics().lastFailure, "(null): there is no access for it");
  const std::string anymore =
      "(ERROR) : orbiqAudienceTagger - Can't send hit anymore with this "
      "serial : ";
  EXPECT_EQ(application.log().count(anymore + "ABC"), 1U);
  EXPECT_EQ(application.log().count(anymore + "(null)"), 2U);

  const auto later = streamingRequest();
  later->setCreationDate(application.clock().now().adding(2 * 86400));
  // Streaming requests do not use a restricted account up.
  for (const auto& request : {later, streamingRequest(), streamingRequest()}) {
    agent().addRequestToQueue(request);
  }
  ASSERT_TRUE(waitForRemovals(8));
  EXPECT_EQ(accounts(), (Counts{10, 3, 6, 0, 1, 0, 0, 0, 0}));
  EXPECT_EQ(agent().statistics().lastFailure, "ABC: the hit was created on a later day than today");
  EXPECT_EQ(server.requestLines("/hit/"), Lines(3, "GET /hit/ABC HTTP/1.1"));
}

TEST_F(Road, AnotherStatusDropsTheHitAndAMarkerTheAuthorization) {
  std::string host = server.hitServer();
  server.grantHost(host.insert(host.find("127"), "user:secret@"));  // which is not shown
  std::size_t done = 0;
  for (const auto& [status, cause] :
       {std::pair{404, ""}, {204, ""}, {301, ": the redirect names no target that can be used"}}) {
    server.answerHits([code = status](const std::string&) { return answer(code); });
    const auto request = streamingRequest();
    agent().addRequestToQueue(request);
    ASSERT_TRUE(waitForRemovals(++done));
    EXPECT_EQ(agent().statistics().lastFailure.toStdString(),
              server.hitServer() + "ABC: answered with status " + std::to_string(status) + cause);
    EXPECT_EQ(request->numberOfFails(), 0U);
  }
  EXPECT_EQ(accounts(), (Counts{3, 0, 0, 3, 0, 0, 0, 0, 0}));
  agent().addRequestToQueue(std::make_shared<orbiqClearCache>());
  ASSERT_TRUE(waitForRemovals(4));
  const auto identity = streamingRequest()->taggerID();
  EXPECT_EQ(orbiqAuthManager::manager().authFromCacheForTagger(identity), nullptr);
}

TEST(SendingRules, WhatIsDueAndWhatIsTooOld) {
  setenv("TZ", "UTC", 1);
  tzset();
  const double nan = std::nan("");
  const Date now{86'370};  // half a minute before midnight
  EXPECT_TRUE(SendingRules::isDue(Date{nan}, now));
  EXPECT_TRUE(SendingRules::isValid({}, now, 0));
  for (const auto& [ahead, offset, isValid] : {std::tuple{-3.0 * 86400, 0.0, true},
                                               {29, 0, true},
                                               {31, 0, false},
                                               {5, 26, true},
                                               {5.5, 26, false},
                                               {86431, 0, false},
                                               {nan, 0, false},
                                               {1e300, 0, false}}) {
    EXPECT_EQ(SendingRules::isValid(now.adding(ahead), now, offset), isValid) << ahead;
  }
}

TEST_F(Road, AMissingAnswerIsTriedAgainWithASignalAMinuteLater) {
  ScriptedServer hits({{steps::readRequest(), steps::reset()},
                       {steps::readRequest(), steps::reset()},
                       {steps::readRequest(), steps::send(answer(200)), steps::readRequest(),
                        // Of an answer that is cut short, the status is all that a hit asks for.
                        steps::send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf")}});
  std::string host = hits.url("/");
  server.grantHost(host.insert(host.find("127"), "user:secret@"));  // neither sent nor shown
  const auto head = streamingRequest();
  agent().addRequestToQueue(head);
  ASSERT_TRUE(application.log().waitFor(kKept, 1));
  const Date failed = application.clock().now();
  // Signals that come too early; a request behind the head does not pass it.
  application.clock().advance(59.9);
  const auto behind = streamingRequest();
  behind->setCreationDate(head->creationDate());  // also when the clock is set back
  agent().addRequestToQueue(behind);
  ASSERT_TRUE(application.log().waitFor("We have now 2 request(s) to handle"));
  EXPECT_EQ(std::tuple(head->numberOfFails(), head->status(), head->lastFail()),
            std::tuple(1U, RequestStatusFailed, failed));
  EXPECT_EQ(savedRequests().front()->numberOfFails(), 1U);
  EXPECT_TRUE(agent().statistics().lastFailure.view().starts_with(hits.url("/ABC: ")));
  EXPECT_EQ(hits.requests().front().find("Authorization"), std::string::npos);
  Application::enterForeground();
  EXPECT_EQ(hits.requests().size(), 1U);
  application.clock().advance(0.1);
  Application::enterForeground();
  // Then the head waits again.
  ASSERT_TRUE(application.log().waitFor(kKept, 2));
  application.clock().advance(-60);  // a clock that was set back counts as well
  Application::enterForeground();
  ASSERT_TRUE(application.log().waitFor("handling done", 2));
  EXPECT_EQ(hits.requests().size(), 4U);
  ASSERT_TRUE(application.log().waitFor("We have now 0 request(s) to handle"));
  EXPECT_EQ(accounts(), (Counts{2, 2, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(Road, TheFallbackNeverBecomesAHostName) {
  server.answerAuthorizations([](const std::string&) { return answer(200, "nothing of use"); });
  Application::tagger("localhost")->sendHit();
  ASSERT_TRUE(application.log().waitFor(kKept));
  application.clock().advance(60);
  Application::enterForeground();
  ASSERT_TRUE(application.log().waitFor(kKept, 2));
  // Without a new exchange, and everything behind it waits.
  Application::tagger("ABC")->sendHit();
  ASSERT_TRUE(application.log().waitFor("We have now 2 request(s) to handle"));
  EXPECT_EQ(server.server().requests().size(), 1U);
  EXPECT_EQ(accounts(), (Counts{2, 0, 0, 0, 0, 0, 0, 0, 2}));
  EXPECT_EQ(agent().statistics().lastFailure,
            "localhost: the authorization server's answer with status 200 lacks access, host or "
            "cmsVI");
  server.grantHost(server.hitServer());
  orbiqAuthManager::manager().clearCache();  // as a marker does
  application.clock().advance(60);
  Application::enterForeground();
  ASSERT_TRUE(application.log().waitFor("We have now 0 request(s) to handle"));
  EXPECT_EQ(server.requestLines("/hit/").size(), 2U);
}

TEST_F(Road, AnAdditionGetsInBetweenTwoSendsAndARequestQueuedTwiceLeavesAtOnce) {
  server.answerHits([](const std::string&) { return "no answer\r\n\r\n"; });  // known at once
  const auto twice = streamingRequest();
  for (int i = 0; i < 300; ++i)
    agent().addRequestToQueue(i % 150 == 1 ? twice : streamingRequest());
  ASSERT_TRUE(application.log().waitFor("We have now 300 request(s) to handle"));
  ASSERT_TRUE(application.log().waitFor(kKept));
  server.answerHits([](const std::string&) {
    // Given while the first of them is on its way.
    static std::once_flag once;
    std::call_once(once, [] { agent().addRequestToQueue(streamingRequest()); });
    return answer(200);
  });
  application.clock().advance(60);
  Application::enterForeground();
  ASSERT_TRUE(application.log().waitFor("We have now", 601));
  // The addition was in the queue before the last of the others had left.
  EXPECT_EQ(application.log().count("We have now 0 request(s) to handle"), 1U);
  EXPECT_EQ(accounts(), (Counts{301, 301, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(application.log().count("Removing request from queue"), 300U);
}

/// Requests in a serial mode have the serial as their whole URL.
class Stop : public Road {
 protected:
  std::shared_ptr<orbiqRequest> sendStream(const String& serial, AccessMode mode = AccessModeFull) {
    auto request = streamingRequest(SendingModeSerialWithStop, serial);
    request->setShouldRenewSessionAfter(true);
    const auto access =
        orbiqAccess::orbiqAccessWithSerial_withAccessMode_withBaseURL(serial, mode, "unused");
    orbiqAuthManager::manager().setAuthToCache_forKey(
        std::make_shared<orbiqAuth>(nullptr, access, false), request->taggerID());
    request->setCreationDate(application.clock().now());
    application.clock().advance(5);
    agent().addRequestToQueue(request);
    return request;
  }
  /// Everything that the loop does with requests is done when a marker behind them has gone.
  [[nodiscard]] bool waitUntilHandled(std::size_t requests) {
    agent().addRequestToQueue(std::make_shared<orbiqClearCache>());
    return waitForRemovals(requests + 1);
  }
};

TEST_F(Stop, FollowsItsStreamAtOnce) {
  const auto request = sendStream(server.hitServer() + "stream");
  ASSERT_TRUE(waitUntilHandled(1));
  EXPECT_EQ(server.requestLines("/hit/"), Lines(2, "GET /hit/stream HTTP/1.1"));
  EXPECT_EQ(*request->parameters(), (Parameters{{"cmsPS", "12"}, {"cmsRK", "8"}}));
  EXPECT_EQ(request->creationDate(), application.clock().now());
  EXPECT_EQ(accounts(), (Counts{1, 1, 0, 0, 0, 0, 0, 0, 0}));
  // At the addition, before the stream and before the stop.
  EXPECT_EQ(application.log().count("(INFO) : ShouldRenewSession"), 3U);
  EXPECT_EQ(orbiqAuthManager::manager().authFromCacheForTagger(request->taggerID()), nullptr);
}

TEST_F(Stop, FollowsWhateverBecameOfItsStreamAndIsNotTriedAgain) {
  server.answerHits([](const std::string&) { return answer(404); });
  sendStream(server.hitServer() + "stream");
  sendStream("no url");
  sendStream("denied", AccessModeDenied);
  ASSERT_TRUE(waitUntilHandled(3));
  EXPECT_EQ(server.requestLines("/hit/").size(), 2U);
  EXPECT_EQ(application.log().count("was not sent because of invalid parameters"), 2U);
  EXPECT_EQ(application.log().count("access denied for its serial"), 2U);
  EXPECT_EQ(accounts(), (Counts{3, 0, 1, 1, 1, 0, 0, 0, 0}));
}

}  // namespace
}  // namespace orbiq::test
