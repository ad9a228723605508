// The authorization cache and the exchange with the server.
#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "orbiq/private/orbiqAgent/orbiqAgent.h"
#include "orbiq/private/orbiqAuthManager/AuthAnswer.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "tests/support/Application.h"

namespace orbiq::test {
namespace {

using TaggerID = std::shared_ptr<orbiqTaggerID>;

TaggerID tagger(const String& serial = "S1", std::intptr_t partialID = 0, bool isStream = false) {
  return std::make_shared<orbiqTaggerID>(serial, partialID, isStream);
}

TEST(AuthAnswer, Grammar) {
  const std::vector<std::pair<std::string, AuthFields>> cases = {
      {"access=\"full\"|ho\"st=B\"/", {{"access", "full"}, {"ho\"st", "B/"}}},
      {"host=B/x=y", {{"host", "B/x"}}},
      {"cmsVI=7\n", {{"cmsVI", "7\n"}}},
      {"a=1|a=2|noise||=x| b =", {{"a", "2"}, {"", "x"}, {" b ", ""}}},
      {"a=\xFF", {}},
  };
  for (const auto& [body, fields] : cases) EXPECT_EQ(parseAuthAnswer(body), fields) << body;
  EXPECT_EQ(orbiqAuthManager::accessModeFromString("Denied"), AccessModeFull);
}

TEST(AuthCache, HandsOutCopiesByIdentity) {
  auto& manager = orbiqAuthManager::manager();
  const auto access =
      orbiqAccess::orbiqAccessWithSerial_withAccessMode_withBaseURL("S1", AccessModeRestricted, "");
  const auto stored = std::make_shared<orbiqAuth>(
      orbiqSession::orbiqSessionWithSerial_withCmsVI("S1", "1"), access, false);
  const TaggerID key = tagger("S1", 1);
  manager.setAuthToCache_forKey(stored, key);
  key->setPartialID(2);  // the cache has a key of its own
  const auto first = manager.authFromCacheForTagger(tagger("S1", 1));
  const auto second = manager.authForTagger(tagger("S1", 1));
  ASSERT_TRUE(first && second);
  EXPECT_TRUE(first != second && first != stored && second != stored);
  for (const auto& other : {tagger("S1", 2), tagger("S2", 1), tagger("S1", 1, true), TaggerID()}) {
    EXPECT_EQ(manager.authFromCacheForTagger(other), nullptr);
  }

  manager.hitSuccessfullySentForTagger(tagger("S1", 1));
  for (const auto& auth : {first, second, manager.authFromCacheForTagger(tagger("S1", 1))}) {
    EXPECT_FALSE(auth->currentAccess()->canSendRequestFor(RequestTypeAudience));
    EXPECT_EQ(auth->currentSession(), stored->currentSession());
  }
  manager.setAuthToCache_forKey(stored, tagger("S1", 2));
  for (const auto& forgotten : {tagger("S1", 1), tagger("S1", 9), TaggerID()}) {
    manager.forgetAuthForTagger(forgotten);
    EXPECT_EQ(manager.authFromCacheForTagger(forgotten), nullptr);
  }
  EXPECT_NE(manager.authFromCacheForTagger(tagger("S1", 2)), nullptr);
  manager.clearCache();
  EXPECT_EQ(manager.authFromCacheForTagger(tagger("S1", 2)), nullptr);
}

/// What an exchange that the server answers with `reply` leaves in the cache.
class AuthExchange : public testing::Test {
 protected:
  std::shared_ptr<orbiqAuth> exchange(const std::string& reply) {
    server.answerAuthorizations([reply](const std::string&) { return reply; });
    manager.authentificationInformationForTagger(tagger());
    return manager.authFromCacheForTagger(tagger());
  }

  static void expectFallback(const std::shared_ptr<orbiqAuth>& auth) {
    ASSERT_NE(auth, nullptr);
    EXPECT_EQ(auth->currentAccess()->accessMode(), AccessModeFull);
    EXPECT_EQ(auth->currentAccess()->host(), "S1");
    const std::string cmsVI = auth->currentSession()->cmsVI().toStdString();
    EXPECT_TRUE(std::regex_match(cmsVI, std::regex("0|[1-9][0-9]{0,9}"))) << cmsVI;
  }

  AccountServer server;
  Application application{server.authorizationServer()};
  orbiqAuthManager& manager = orbiqAuthManager::manager();
};

TEST_F(AuthExchange, TakesAnAnswerOfAnyStatusAndKeepsAnAccessOfTheSameMode) {
  const auto auth = exchange(answer(500, server.grant("\"restricted\"")));
  EXPECT_EQ(auth->currentAccess()->accessMode(), AccessModeRestricted);
  EXPECT_EQ(auth->currentSession()->cmsVI(), "7");
  EXPECT_EQ(application.log().count("(INFO) : Access for serial S1 is restricted on host " +
                                    server.hitServer()),
            1U);
  EXPECT_EQ(application.log().count("(INFO) : Serial S1 on host " + server.hitServer() + "S1"), 1U);

  manager.hitSuccessfullySentForTagger(tagger());
  const auto kept = exchange(answer(200, "access=restricted|host=http://other/|cmsVI=8"));
  EXPECT_EQ(kept->currentAccess()->host().toStdString(), server.hitServer() + "S1");
  EXPECT_FALSE(kept->currentAccess()->canSendRequestFor(RequestTypeAudience));
  EXPECT_EQ(kept->currentSession()->cmsVI(), "8");
  const auto replaced = exchange(answer(200, "access=|host=http://other/|cmsVI="));
  EXPECT_EQ(replaced->currentAccess()->host(), "http://other/S1");
}

TEST_F(AuthExchange, UnusableAnswersEndInTheFallback) {
  for (const std::string& body :
       {std::string("access=denied|host=B/"), std::string("host=B/|cmsVI=7"),
        std::string("access=denied|cmsVI=7"), server.grant("\xC3\x28")}) {
    expectFallback(exchange(answer(200, body)));
  }
  // It is used as it stands, until it is forgotten.
  expectFallback(manager.authForTagger(tagger()));
  EXPECT_EQ(server.requestLines("/auth/").size(), 4U);
  manager.forgetAuthForTagger(tagger());
  manager.authForTagger(tagger());
  EXPECT_EQ(server.requestLines("/auth/").size(), 5U);
}

TEST_F(AuthExchange, WhereNobodyCanBeAskedForNobodyIsAsked) {
  EXPECT_EQ(manager.authForTagger(tagger("S 1"))->currentAccess()->host(), "S 1");
  for (const TaggerID& nobody : {TaggerID(), tagger(nullptr)}) {
    EXPECT_EQ(manager.authForTagger(nobody), nullptr);
  }
  EXPECT_EQ(application.log().count("(ERROR) : No authorization can be asked for"), 2U);
  // A record without a session and an access is not asked for either.
  manager.hitSuccessfullySentForTagger(tagger());
  EXPECT_EQ(manager.authForTagger(tagger())->currentAccess(), nullptr);
  EXPECT_TRUE(server.server().requests().empty());
}

TEST_F(AuthExchange, TheDateHeaderOfACompleteAnswerSetsTheClockOffset) {
  const auto date = [](const std::string& time) {
    return "Date: Sun, 06 Nov 1994 " + time + " GMT\r\n";
  };
  const auto expectOffset = [&](const std::string& reply, double seconds) {
    exchange(reply);
    EXPECT_NEAR(manager.timeIntervalBetweenServerAndDevice(), seconds, 0.01) << reply;
  };
  setenv("TZ", "UTC", 1);
  const double evening = 784'166'350;  // 23:59:10 of that day
  application.clock().advance(evening - application.clock().now().secondsSince1970());
  const auto soon = streamingRequest();
  soon->setCreationDate(application.clock().now().adding(20));
  expectOffset(answer(200, "not an answer", date("23:59:00")), -10);
  EXPECT_TRUE(orbiqAgent::sharedAgent().isTheRequestValid(*soon));
  // Both a request's day and today's are the server's.
  expectOffset(answer(200, "not an answer", date("23:59:50")), 40);
  EXPECT_FALSE(orbiqAgent::sharedAgent().isTheRequestValid(*soon));
  const std::string broken = "Transfer-Encoding: chunked\r\n\r\nnonsense\r\n";
  expectOffset("HTTP/1.1 200 OK\r\n" + date("23:59:00") + broken, 40);
  expectOffset(answer(200, server.grant("full")), 0);
}

}  // namespace
}  // namespace orbiq::test
