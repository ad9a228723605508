// What wakes the sending loop: the network, the foreground. On links and routes of the test's own.
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "tests/support/Application.h"
#include "tests/support/NetworkNamespace.h"

namespace orbiq::test {
namespace {

/// The machine's own network. Its looks are counted, one for each time that the sending loop is
/// woken and has something to send, and one for each attempt.
class WatchedNetwork final : public NetworkReachabilitySource, public NetworkReachability {
 public:
  std::shared_ptr<NetworkReachability> createWithName(const std::string& name) override {
    return _network->createWithName(name);
  }
  std::shared_ptr<NetworkReachability> createWithAddress(const sockaddr* address) override {
    _target = _network->createWithAddress(address);
    return {std::shared_ptr<void>(), this};
  }
  std::string failure() override { return _network->failure(); }
  bool setCallback(NetworkReachabilityCallback callback,
                   const NetworkReachabilityContext& context) override {
    return _target->setCallback(callback, context);
  }
  bool setDispatchQueue(std::shared_ptr<SerialQueue> queue) override {
    return _target->setDispatchQueue(std::move(queue));
  }
  bool getFlags(std::uint32_t& flags) override {
    const bool isKnown = _target->getFlags(flags);
    looks.record({LoggingModeInfo, "look", {}});
    if (looks.count("look") == lookInVain) flags = 0;
    return isKnown;
  }

  LogRecorder looks;
  std::atomic<std::size_t> lookInVain = 0;

 private:
  std::shared_ptr<NetworkReachabilitySource> _network = makeRouteReachabilitySource();
  std::shared_ptr<NetworkReachability> _target;
};

class Triggers : public testing::Test {
 protected:
  void SetUp() override {
    if (const std::string refusal = enterNetwork(); !refusal.empty()) GTEST_SKIP() << refusal;
    ip("link add uplink type veth peer peer\nlink set peer up\naddress add 10.0.0.1/24 dev uplink");
    server = std::make_unique<AccountServer>();
    watched = std::make_shared<WatchedNetwork>();
    application = std::make_unique<Application>(
        server->authorizationServer(), [this](HostDescription& /*host*/, Platform& platform) {
          platform.reachabilitySource = watched;
        });
  }
  /// Does what wakes the sending loop, and returns when the loop has looked and sleeps again, or
  /// else is at work.
  template <class Action>
  [[nodiscard]] bool wakeLoop(Action action) {
    const std::size_t before = watched->looks.count("look");
    action();
    return watched->looks.waitFor("look", before + 1);
  }
  void connect() {
    ip("link set uplink up\nroute add default via 10.0.0.2");
    // The carrier comes a little later.
    const sockaddr_in internet{AF_INET, 0, {}, {}};
    const auto target = makeRouteReachabilitySource()->createWithAddress(
        reinterpret_cast<const sockaddr*>(&internet));
    for (std::uint32_t flags = 0; flags == 0; std::this_thread::yield()) target->getFlags(flags);
  }
  std::unique_ptr<AccountServer> server;
  std::shared_ptr<WatchedNetwork> watched;
  std::unique_ptr<Application> application;
};

TEST_F(Triggers, TheNetworksReturnSendsStreamingAndDropsAudienceRequests) {
  const auto tagger = Application::tagger("ABC");
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  // One at a time, as a late look would find the network before its return is told of.
  ASSERT_TRUE(wakeLoop([&] { tagger->sendHit(); }));
  ASSERT_TRUE(
      wakeLoop([&] { agent.addRequestToQueue(streamingRequest(SendingModeHost, "stream")); }));
  ASSERT_TRUE(wakeLoop([&] { agent.addRequestToQueue(std::make_shared<orbiqClearCache>()); }));
  ASSERT_TRUE(wakeLoop([&] { tagger->sendHit(); }));
  ASSERT_TRUE(wakeLoop([] { Application::enterForeground(); }));  // which finds no network

  // The streaming request is held up on its way, so that the file can be looked at.
  std::latch gate(1);
  server->answerHits([&](const std::string&) { return gate.wait(), answer(200); });
  auto settled = std::async(std::launch::async, [&] { return agent.flush(std::chrono::hours(1)); });
  connect();
  ASSERT_TRUE(application->log().waitFor("Handling request"));
  EXPECT_EQ(savedRequests().size(), 4U);  // what was dropped is not saved on its own
  gate.count_down();
  EXPECT_TRUE(settled.get());
  EXPECT_EQ(server->requestLines("/hit/"), (std::vector<std::string>{"GET /hit/stream HTTP/1.1"}));
  EXPECT_EQ(counts(agent.statistics()), (std::vector<std::uint64_t>{3, 1, 0, 0, 0, 0, 0, 2, 0}));
}

TEST_F(Triggers, AChangeToUnreachableChangesNothing) {
  connect();
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  ip("link set uplink down");
  ASSERT_TRUE(application->log().waitFor("Connection status changed"));
  agent.addRequestToQueue(streamingRequest());
  Application::tagger("ABC")->sendHit();
  ASSERT_TRUE(application->log().waitFor("We have now 2 request(s) to handle"));
  orbiq::NotificationCenter::defaultCenter().postNotificationName(
      korbiqReachabilityChangedNotification);
  EXPECT_EQ(application->log().count("Connection status changed"), 2U);
  Application::tagger("ABC")->sendHit();
  ASSERT_TRUE(application->log().waitFor("We have now 3 request(s) to handle"));
  EXPECT_EQ(agent.statistics().discardedAtNetworkReturn, 0U);
  EXPECT_TRUE(server->server().requests().empty());
  const std::string waiting = "(WARNING) : The requests wait, as there is no network";
  ASSERT_TRUE(application->log().waitFor(waiting));
  EXPECT_EQ(agent.statistics().lastFailure, "there is no network");
  connect();
  ASSERT_TRUE(application->log().waitFor("(WARNING) : There is a network again"));
  EXPECT_EQ(application->log().count(waiting), 1U);
}

TEST_F(Triggers, AnAttemptThatFindsNoNetworkIsNoFailureOfTheRequest) {
  connect();
  const auto request = streamingRequest();
  watched->lookInVain = 2;  // the first one is the loop's, before the attempt's
  orbiqAgent::sharedAgent().addRequestToQueue(request);
  ASSERT_TRUE(application->log().waitFor("handling resulted in a timeout or lack of connection"));
  Application::enterForeground();  // not a minute later
  ASSERT_TRUE(application->log().waitFor("We have now 0 request(s) to handle"));
  EXPECT_EQ(request->numberOfFails(), 0U);
  EXPECT_EQ(server->requestLines("/hit/").size(), 1U);
}

TEST(AssumedNetwork, HitsReachAServerBesideLoopbackAlone) {
  if (const std::string refusal = enterNetwork(); !refusal.empty()) GTEST_SKIP() << refusal;
  AccountServer server;
  const Application application(
      server.authorizationServer(),
      [](HostDescription& host, Platform& /*platform*/) { host.assumeReachable = true; });
  Application::tagger("ABC")->sendHit();
  ASSERT_TRUE(application.log().waitFor("We have now 0 request(s) to handle"));
  EXPECT_EQ(orbiqAgent::sharedAgent().statistics().sent, 1U);
  ip("link set lo down");
  EXPECT_TRUE(orbiqReachability::reachabilityForLocalWiFi()->isReachable());
  EXPECT_EQ(application.log().count("(WARNING)"), 0U);
}

}  // namespace
}  // namespace orbiq::test
