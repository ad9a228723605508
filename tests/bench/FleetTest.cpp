// The simulated fleet: its accounts, and one of its clients beside the agent itself.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "bench/fleet/Fleet.h"
#include "bench/fleet/Scenario.h"
#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/private/orbiqAgent/SendingRules.h"
#include "orbiq/services/platform/host/LibraryDirectory.h"
#include "tests/support/Application.h"

namespace orbiq::test {
namespace {

using bench::Behaviour;
using bench::Client;
using bench::Fleet;
using bench::Kind;
using bench::kNever;
using bench::Moment;
using bench::Scenario;
using bench::ScenarioServers;

constexpr char kUnanswered[] = "handling resulted in a timeout or lack of connection";

TEST(Fleet, EveryHitHasOneFate) {
  const Behaviour busy{.betweenHits = 1,
                       .betweenForegrounds = 100,
                       .betweenNetworkBreaks = 300,
                       .betweenRestarts = 900,
                       .streamingShare = 0.3,
                       .renewingShare = 0.1};
  const Scenario everything{
      .name = "everything", .outage = {300, 900}, .loss = {1000, 1500}, .restarts = {1400, 1430}};
  ScenarioServers servers(everything, {.authorizationCapacity = 3, .hitCapacity = 150}, 1800);
  Fleet fleet(200, busy, everything, servers, 1800, 1);
  fleet.run();
  EXPECT_EQ(fleet.accounts().accepted, fleet.accounts().settled() + fleet.pending());
  EXPECT_GT(fleet.accounts().of(HitFate::PushedOut), 0U);
  EXPECT_GT(fleet.accounts().of(HitFate::DiscardedAtNetworkReturn), 0U);
  EXPECT_GT(fleet.accounts().lostAtEnd, 0U);
  EXPECT_GT(fleet.silenced(), 0U);
  const auto& answered = servers.hits().answered;
  EXPECT_EQ(*std::max_element(answered.begin(), answered.end()), 150U);
}

/// What both sides do at a step.
struct Behaving final : bench::Servers {
  Answer authorize(Moment /*now*/, bench::Random& /*random*/) override {
    ++authorizations;
    return {static_cast<std::uint16_t>(grants ? 200 : 0), 0};
  }
  Answer takeHit(Moment /*now*/, bench::Random& /*random*/) override {
    if (status != 0) ++hits;
    return {static_cast<std::uint16_t>(status), 0};
  }
  bool grants = true;
  int status = 200;
  std::uint64_t authorizations = 0;
  std::uint64_t hits = 0;
};

/// The agent with a server on loopback, and a model of it; whatever is done is done to both.
class SideBySide : public testing::TestWithParam<std::uint64_t> {
 protected:
  SideBySide() {
    server.answerAuthorizations([this](const std::string&) {
      return answer(200, agentGrants ? server.grant("full") : "nothing of use");
    });
    server.answerHits([this](const std::string&) {
      if (agentStatus != 0) ++agentHits;
      // What is no HTTP is no answer, and the client knows it at once.
      return agentStatus == 0 ? std::string("nothing\r\n\r\n") : answer(agentStatus);
    });
  }

  std::shared_ptr<orbiqRequest> request(Kind kind) const {
    return std::make_shared<orbiqRequest>(
        nullptr, kind == Kind::Streaming ? RequestTypeStreaming : RequestTypeAudience,
        SendingModeHost, "ABC", tagger);
  }

  /// Both find four requests of an earlier process.
  void start() {
    const std::vector<Kind> saved{Kind::Audience, Kind::Streaming, Kind::Audience, Kind::Streaming};
    RequestQueue queue;
    bench::AgentModel::loseNetwork(client);
    for (const Kind kind : saved) {
      queue.push_back(request(kind));
      model.add(client, kind, false, now);
    }
    const std::string directory = orbiq::libraryDirectory() + "/orbiqCache";
    std::filesystem::create_directories(directory);
    RequestsFile(directory + "/requests.ser").save(queue);
    client.isOffline = false;
    model.restart(client, now);
    settle();
    orbiqAgent::sharedAgent();
  }

  void behave(bool grants, int status) {
    modelServers.grants = agentGrants = grants;
    modelServers.status = agentStatus = status;
  }
  void advance(std::uint32_t seconds) {
    now += seconds * bench::kSecond;
    application.clock().advance(seconds);
  }
  void add(Kind kind, bool renews) {
    ++additions;
    model.add(client, kind, renews, now);
    settle();
    const auto added = request(kind);
    added->setShouldRenewSessionAfter(renews);
    orbiqAgent::sharedAgent().addRequestToQueue(added);
  }
  void enterForeground() {
    model.enterForeground(client, now);
    settle();
    Application::enterForeground();
  }
  void networkReturns() {
    model.regainNetwork(client, now);
    hadMarker = client.hasMarker;  // dropped, not handled
    settle();
    NotificationCenter::defaultCenter().postNotificationName(korbiqReachabilityChangedNotification);
    await();  // what it sends has to be sent before anything else is added
  }
  /// The model's exchanges take no time.
  void settle() {
    while (client.exchangeEnd != kNever) model.endExchange(client);
    if (client.lastFail == now) failures.insert(now);
    if (hadMarker && !client.hasMarker) ++markersHandled;
    hadMarker = client.hasMarker;
  }

  std::size_t queueChanges() const {
    const bench::Accounts& accounts = model.accounts();
    return additions + markersHandled +
           static_cast<std::size_t>(accounts.of(HitFate::Sent) +
                                    accounts.of(HitFate::AnsweredWithAnotherStatus));
  }
  /// Waits for what the model says that the agent logs. A signal that does nothing is not awaited.
  void await() {
    ASSERT_TRUE(application.log().waitFor("We have now", queueChanges()));
    ASSERT_TRUE(application.log().waitFor(kUnanswered, failures.size()));
  }
  /// Whether the agent did that, and no more.
  void compare() {
    ASSERT_NO_FATAL_FAILURE(await());
    const bench::Accounts& accounts = model.accounts();
    EXPECT_EQ(application.log().count("We have now"), queueChanges());
    EXPECT_EQ(application.log().count(kUnanswered), failures.size());
    EXPECT_EQ(server.requestLines("/auth/").size(), modelServers.authorizations);
    EXPECT_EQ(agentHits, modelServers.hits);
    const std::uint64_t pending = client.queued - (client.hasMarker ? 1U : 0U);
    EXPECT_EQ(counts(orbiqAgent::sharedAgent().statistics()),
              (std::vector<std::uint64_t>{
                  accounts.accepted, accounts.of(HitFate::Sent), 0,
                  accounts.of(HitFate::AnsweredWithAnotherStatus), 0,
                  accounts.of(HitFate::PushedOut), accounts.of(HitFate::DiscardedAtStart),
                  accounts.of(HitFate::DiscardedAtNetworkReturn), pending}));
  }

  AccountServer server;
  std::atomic<bool> agentGrants = true;
  std::atomic<int> agentStatus = 200;
  std::atomic<std::uint64_t> agentHits = 0;
  Application application{server.authorizationServer()};
  const std::shared_ptr<orbiqTaggerID> tagger = std::make_shared<orbiqTaggerID>("ABC", 1, false);

  Behaving modelServers;
  bench::AgentModel model{modelServers};
  Client client;
  Moment now = 0;
  std::size_t additions = 0;
  std::size_t markersHandled = 0;
  bool hadMarker = false;
  std::set<Moment> failures;
};

TEST_P(SideBySide, ModelAndAgentDoTheSame) {
  bench::Random random(GetParam());
  const auto upTo = [&](std::uint32_t most) {
    return 1 + static_cast<std::uint32_t>(random.next() % most);
  };
  behave(true, 0);
  start();
  compare();
  // Every third time with a full queue, in which each addition makes room, once of the marker.
  if (GetParam() % 3 == 0) {
    while (client.queued < SendingRules::kMostRequests) add(Kind::Streaming, false);
    for (int i = 0; i < 5 && !HasFailure(); ++i) {
      compare();
      advance(1);
      add(Kind::Streaming, false);
    }
    compare();
  }
  for (int step = 0; step < 80 && !HasFailure(); ++step) {
    SCOPED_TRACE(step);
    const double answers = random.uniform();
    behave(!random.isWithin(0.1), answers < 0.6 ? 200 : answers < 0.75 ? 404 : 0);
    const bool isHeldUp = client.lastFail != kNever;
    const std::uint32_t since = isHeldUp ? (now - client.lastFail) / bench::kSecond : 0;
    const bool fallsDue = isHeldUp && (since >= 58 || random.isWithin(0.4));
    advance(fallsDue ? 59 - since + upTo(30) : isHeldUp ? upTo(59 - since) : upTo(90));
    const std::uint64_t what = random.next() % 5;
    // The agent may still have to look at an earlier signal. So what wakes it when the head falls
    // due is one that does nothing else.
    if (fallsDue || what == 0) {
      enterForeground();
    } else {
      if (what == 4) networkReturns();
      add(what == 1 ? Kind::Audience : Kind::Streaming, what == 3 && random.isWithin(0.5));
    }
    compare();
  }
}

INSTANTIATE_TEST_SUITE_P(Fleet, SideBySide, testing::Range<std::uint64_t>(0, 12));

}  // namespace
}  // namespace orbiq::test
