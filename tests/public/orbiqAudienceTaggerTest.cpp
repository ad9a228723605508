// The taggers, and what a hit is made of.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "tests/support/Application.h"

namespace orbiq::test {
namespace {

constexpr char kNoServer[] = "http://127.0.0.1:9/";

/// The hits in the queue, out of the requests file.
RequestQueue queuedHits(Application& application, std::size_t hits) {
  EXPECT_TRUE(application.log().waitFor("We have now " + std::to_string(hits) + " request"));
  const std::string path = orbiqAgent::sharedAgent().requestsFilePath().toStdString();
  std::filesystem::copy_file(path, path + ".copy",
                             std::filesystem::copy_options::overwrite_existing);
  return RequestsFile().load(path + ".copy");
}

TEST(AudienceTagger, ComposesAHit) {
  MutableString shared("AD-1");
  Application application(kNoServer, [&](HostDescription& host, Platform&) {
    host.advertisingIdentifier = [&]() -> String { return shared; };
  });
  const auto tagger = Application::tagger("ABC");
  EXPECT_TRUE(tagger->useIDFA());
  EXPECT_EQ(tagger->loggingMode(), LoggingModeError);
  EXPECT_EQ(orbiqLogger::sharedLogger().loggingMode(), LoggingModeInfo);
  tagger->sendHit();
  shared.setString("");
  tagger->sendHit();
  shared.setString("AD-2");
  tagger->setUseIDFA(false);
  tagger->sendHit();
  Application::tagger("")->sendHit();
  Application::tagger("DEF")->sendHit();

  const RequestQueue requests = queuedHits(application, 5);
  ASSERT_EQ(requests.size(), 5U);
  EXPECT_EQ(requests[0]->serial(), "ABC");
  EXPECT_EQ(requests[4]->serial(), "DEF");
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
  // A hit starts from these, and has values of its own for all of them.
  for (const auto& [key, value] : orbiqAgent::sharedAgent().defaultParametersForRequest()) {
    EXPECT_TRUE(hits[0].contains(key.view())) << key.view();
  }
}

TEST(AudienceTagger, TheGateAsksTheCachedAccess) {
  Application application(kNoServer);
  const auto tagger = Application::tagger("ABC");
  const auto identity = std::make_shared<orbiqTaggerID>("ABC", INTPTR_MAX, false);
  // Neither session nor access refuses.
  orbiqAuthManager::manager().hitSuccessfullySentForTagger(identity);
  tagger->sendHit();
  EXPECT_EQ(orbiqAgent::sharedAgent().statistics().refused, 1U);
  orbiqAuthManager::manager().forgetAuthForTagger(identity);
  tagger->sendHit();
  EXPECT_TRUE(application.log().waitFor("We have now 1 request(s) to handle"));
  EXPECT_EQ(orbiqAgent::sharedAgent().statistics().accepted, 2U);
}

TEST(AudienceTagger, OnePerSerialFromTheFactory) {
  const Application application(kNoServer);
  const auto unregistered = std::make_shared<orbiqAudienceTagger>("ABC");
  std::vector<std::shared_ptr<orbiqAudienceTagger>> taggers(8);
  std::vector<std::thread> threads;
  for (auto& tagger : taggers) {
    threads.emplace_back([&tagger] { tagger = Application::tagger(std::string("ABC")); });
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& tagger : taggers) EXPECT_EQ(tagger, taggers.front());
  EXPECT_NE(taggers.front(), unregistered);
  EXPECT_NE(taggers.front(), Application::tagger("XYZ"));
  EXPECT_EQ(Application::tagger(nullptr), Application::tagger(nullptr));
}

TEST(AudienceTagger, GuardedInsertion) {
  const auto added = [](const String& value, const String& key, std::uintptr_t limit) {
    Parameters parameters{{"k", "old"}};
    orbiqAudienceTagger::addParam_withKey_andLengthLimit_inDictionary(value, key, limit,
                                                                      &parameters);
    return parameters;
  };
  EXPECT_EQ(added("abcdef", "k", 4).at("k"), "abcd");
  EXPECT_EQ(added("abcdef", "k", 0).at("k"), "abcdef");
  EXPECT_EQ(added("abcdef", "k", 6).at("k"), "abcdef");
  EXPECT_EQ(added("", "k", 0).at("k"), "old");
  EXPECT_EQ(added(nullptr, "k", 0).at("k"), "old");
  EXPECT_EQ(added("v", "", 0).size(), 1U);
  EXPECT_EQ(added("v", nullptr, 0).size(), 1U);
  // Lengths count UTF-16 code units; no character is cut in two.
  EXPECT_EQ(added("\u00e9\u20acx", "k", 2).at("k"), "\u00e9\u20ac");
  EXPECT_EQ(added("a\U0001F600b", "k", 3).at("k"), "a\U0001F600");
  EXPECT_EQ(added("a\U0001F600b", "k", 2).at("k"), "a");
  EXPECT_EQ(added("a\U0001F600b", "k", 4).at("k"), "a\U0001F600b");
  EXPECT_EQ(added("\U0001F600", "k", 1).at("k"), "");
  // Before and behind what is there.
  EXPECT_EQ(added("new", "a", 0), (Parameters{{"a", "new"}, {"k", "old"}}));
  EXPECT_EQ(added("new", "z", 0), (Parameters{{"k", "old"}, {"z", "new"}}));
  orbiqAudienceTagger::addParam_withKey_inDictionary("v", "k", nullptr);
}

TEST(Tagger, SettingsAreSharedTextsAndTheThresholdIsTheLibrarys) {
  const Application application(kNoServer);
  MutableString text("before");
  orbiqAudienceTagger tagger(text);
  tagger.setNewLevel1(text);
  text.setString("after");
  EXPECT_EQ(tagger.theNewLevel1(), "after");
  EXPECT_EQ(tagger.serial(), "before");
  EXPECT_EQ(tagger.customerData(), nullptr);
  EXPECT_FALSE(tagger.canSend());
  tagger.setLoggingMode(LoggingModeWarning);
  EXPECT_EQ(tagger.loggingMode(), LoggingModeWarning);
  EXPECT_EQ(orbiqLogger::sharedLogger().loggingMode(), LoggingModeWarning);
  EXPECT_EQ(Application::tagger("late")->loggingMode(), LoggingModeError);
  EXPECT_EQ(orbiqLogger::sharedLogger().loggingMode(), LoggingModeWarning);
  EXPECT_EQ(orbiqTagger::orbiqVersion(), "4.2");

  const orbiqAudienceTagger bare;
  EXPECT_EQ(bare.serial(), nullptr);
  EXPECT_FALSE(bare.useIDFA());
  EXPECT_EQ(bare.loggingMode(), LoggingModeInfo);
}

}  // namespace
}  // namespace orbiq::test
