// What wakes the sending loop: the network, the foreground. On links and routes of the test's own.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "tests/support/Application.h"
#include "tests/support/NetworkNamespace.h"

namespace orbiq::test {
namespace {

class Triggers : public testing::Test {
 protected:
  void SetUp() override {
    std::string refusal;
    network = NetworkNamespace::enter(refusal);
    if (!network) GTEST_SKIP() << refusal;
    network->addVethPair("uplink", "peer");
    network->setUp("peer");
    network->addAddress("uplink", "10.0.0.1/24");
    server = std::make_unique<AccountServer>();
    application = std::make_unique<Application>(server->authorizationServer());
  }
  void connect() {
    network->setUp("uplink");
    network->addDefaultRoute("via 10.0.0.2");
  }
  std::size_t requestsInFile() {
    const std::string path = orbiqAgent::sharedAgent().requestsFilePath().toStdString();
    std::filesystem::copy_file(path, path + ".copy",
                               std::filesystem::copy_options::overwrite_existing);
    return RequestsFile().load(path + ".copy").size();
  }

  std::unique_ptr<NetworkNamespace> network;
  std::unique_ptr<AccountServer> server;
  std::unique_ptr<Application> application;
};

TEST_F(Triggers, TheNetworksReturnSendsStreamingAndDropsAudienceRequests) {
  const auto tagger = Application::tagger("ABC");
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  tagger->sendHit();
  agent.addRequestToQueue(streamingRequest(SendingModeHost, "stream"));
  agent.addRequestToQueue(std::make_shared<orbiqClearCache>());
  tagger->sendHit();
  ASSERT_TRUE(application->log().waitFor("We have now 4 request(s) to handle"));
  Application::enterForeground();  // wakes the loop, which finds no network
  std::size_t saves = application->log().count("Saving requests to cache");
  EXPECT_EQ(saves, 4U);

  // The streaming request is held up on its way, so that the file can be looked at.
  Gate gate;
  server->answerHits([&](const std::string&) {
    gate.pass();
    return answer(200);
  });
  connect();
  ASSERT_TRUE(application->log().waitFor("Handling request"));
  EXPECT_EQ(requestsInFile(), 4U);  // what was dropped is not saved on its own
  gate.open();
  ASSERT_TRUE(application->log().waitFor("We have now 0 request(s) to handle"));
  EXPECT_EQ(server->requestLines("/hit/"), (std::vector<std::string>{"GET /hit/stream HTTP/1.1"}));
  EXPECT_EQ(counts(agent.statistics()), (std::vector<std::uint64_t>{3, 1, 0, 0, 0, 0, 0, 2, 0}));
  EXPECT_EQ(application->log().count("Connection status changed"), 1U);
}

TEST_F(Triggers, AChangeToUnreachableChangesNothing) {
  connect();
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  network->setDown("uplink");
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
}

}  // namespace
}  // namespace orbiq::test
