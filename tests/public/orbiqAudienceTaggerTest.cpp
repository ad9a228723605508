// The taggers, and what a hit is made of.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Application.h"

namespace orbiq::test {
namespace {

TEST(AudienceTagger, ComposesAHit) {
  MutableString shared("AD-1");
  Application application(kNoServer, [&](HostDescription& host, Platform&) {
    host.advertisingIdentifier = [&]() -> String { return shared; };
  });
  const auto tagger = Application::tagger("ABC");
  tagger->sendHit();
  shared.setString("");
  tagger->sendHit();
  shared.setString("AD-2");
  tagger->setUseIDFA(false);
  tagger->sendHit();
  Application::tagger("")->sendHit();
  Application::tagger("DEF")->sendHit();

  ASSERT_TRUE(application.log().waitFor("We have now 5 request(s) to handle"));
  const RequestQueue requests = savedRequests();
  ASSERT_EQ(requests.size(), 5U);
  std::vector<Parameters> hits;
  for (const auto& request : requests) hits.push_back(*request->parameters());
  const auto with = [&](std::size_t hit, Parameters rest) {
    rest.emplace("n", hits[hit].at("n"));
    rest.emplace("tn", "on-ios");
    rest.emplace("v", "1.0");
    return rest;
  };
  EXPECT_EQ(hits[0], with(0, {{"serial", "ABC"}, {"did", "AD-1"}}));
  EXPECT_EQ(hits[1], with(1, {{"serial", "ABC"}}));
  EXPECT_EQ(hits[2], with(2, {{"serial", "ABC"}}));
  EXPECT_EQ(hits[3], with(3, {{"did", "AD-2"}}));
  EXPECT_TRUE(hits[4].at("did").isSameObjectAs(hits[3].at("did"))) << "saved twice";
  for (const Parameters& hit : hits) {
    EXPECT_TRUE(std::regex_match(hit.at("n").toStdString(), std::regex("[0-9]{9}")));
  }
  EXPECT_NE(hits[0].at("n"), hits[1].at("n"));
}

TEST(AudienceTagger, OnePerSerialFromTheFactory) {
  const Application application(kNoServer);
  std::vector<std::shared_ptr<orbiqAudienceTagger>> taggers(8);
  std::vector<std::thread> threads;
  for (auto& tagger : taggers) {
    threads.emplace_back([&tagger] { tagger = Application::tagger(std::string("ABC")); });
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& tagger : taggers) EXPECT_EQ(tagger, taggers.front());
  EXPECT_NE(taggers.front(), Application::tagger("XYZ"));
  EXPECT_EQ(Application::tagger(nullptr), Application::tagger(nullptr));
}

TEST(AudienceTagger, GuardedInsertion) {
  const auto added = [](const String& value, std::uintptr_t limit, const String& key = "k") {
    Parameters parameters{{"k", "old"}};
    orbiqAudienceTagger::addParam_withKey_andLengthLimit_inDictionary(value, key, limit,
                                                                      &parameters);
    return parameters.at("k");
  };
  EXPECT_EQ(added("abcdef", 4), "abcd");
  for (const String& nothing : {String(), String("")}) {
    EXPECT_EQ(added(nothing, 0), "old");
    EXPECT_EQ(added("new", 0, nothing), "old");
  }
  // Lengths count UTF-16 code units; no character is cut in two.
  EXPECT_EQ(added("\u00e9\u20acx", 2), "\u00e9\u20ac");
  EXPECT_EQ(added("a\U0001F600b", 3), "a\U0001F600");
  EXPECT_EQ(added("a\U0001F600b", 2), "a");
  orbiqAudienceTagger::addParam_withKey_inDictionary("v", "k", nullptr);
}

TEST(Tagger, HasASerialOfItsOwnAndTheLibrarysThreshold) {
  const Application application(kNoServer);
  MutableString text("before");
  orbiqAudienceTagger tagger(text);
  tagger.setNewLevel1(text);
  text.setString("after");
  EXPECT_EQ(tagger.theNewLevel1(), "after");
  EXPECT_EQ(tagger.serial(), "before");
  tagger.setLoggingMode(LoggingModeWarning);
  EXPECT_EQ(Application::tagger("late")->loggingMode(), LoggingModeError);
  EXPECT_EQ(orbiqLogger::sharedLogger().loggingMode(), LoggingModeWarning);
}

}  // namespace
}  // namespace orbiq::test
