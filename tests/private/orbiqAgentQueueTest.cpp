// The agent's queue and its file.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "tests/support/Application.h"
#include "tests/support/CLibrary.h"

namespace orbiq::test {
namespace {

namespace fs = std::filesystem;
using Counts = std::vector<std::uint64_t>;

fs::path fileOf() {
  return fs::path(getenv("XDG_STATE_HOME")) / "tv.example.player/Library/orbiqCache/requests.ser";
}

std::shared_ptr<orbiqAuth> fullAccess(const String& base) {
  const auto access =
      orbiqAccess::orbiqAccessWithSerial_withAccessMode_withBaseURL("ABC", AccessModeFull, base);
  return std::make_shared<orbiqAuth>(nullptr, access, false);
}

std::shared_ptr<orbiqRequest> audienceRequest() {
  return std::make_shared<orbiqRequest>(nullptr, RequestTypeAudience, SendingModeHost, "ABC",
                                        std::make_shared<orbiqTaggerID>("ABC", 0, false));
}

TEST(AgentQueue, KeepsTheYoungest500InOrder) {
  std::uint64_t pushedOutAtSave = 0;
  Application application(kNoServer, [&](HostDescription& host, Platform& /*platform*/) {
    host.logSink = [&, record = host.logSink](const LogLine& line) {
      record(line);
      if (line.text.ends_with("Saving requests to cache"))
        pushedOutAtSave = orbiqAgent::sharedAgent().statistics().pushedOut;
    };
  });
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  agent.addRequestToQueue(nullptr);
  for (int number = 0; number < 503; ++number) {
    agent.addRequestToQueue(streamingRequest(SendingModeHost, std::to_string(number)));
  }
  ASSERT_TRUE(application.log().waitFor("We have now", 503));
  EXPECT_EQ(counts(agent.statistics()), (Counts{503, 0, 0, 0, 0, 3, 0, 0, 500}));
  EXPECT_EQ(pushedOutAtSave, 2U) << "counted when the file no longer has it";
  const RequestQueue saved = savedRequests();
  ASSERT_EQ(saved.size(), 500U);
  for (std::size_t i = 0; i < saved.size(); ++i) {
    EXPECT_EQ(saved[i]->serial().toStdString(), std::to_string(i + 3));
  }
  EXPECT_EQ(fs::status(fileOf()).permissions(), fs::perms{0600});
  EXPECT_EQ(fs::status(fileOf().parent_path()).permissions(), fs::perms{0700});
}

TEST(AgentQueue, OnlyStreamingRequestsSurviveARestartFollowedByAMarker) {
  Application application(kNoServer);
  const auto late = streamingRequest(SendingModeHost, "late");
  RequestsFile(fileOf()).save({audienceRequest(), streamingRequest(),
                               std::make_shared<orbiqClearCache>(), audienceRequest()});
  orbiqAuthManager::manager().setAuthToCache_forKey(
      std::make_shared<orbiqAuth>(nullptr, nullptr, false), late->taggerID());
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  EXPECT_EQ(counts(agent.statistics()), (Counts{3, 0, 0, 0, 0, 0, 2, 0, 1}));
  EXPECT_EQ(savedRequests().size(), 4U);  // until the next save
  agent.addRequestToQueue(late);
  ASSERT_TRUE(application.log().waitFor("We have now 3 request(s) to handle"));
  const RequestQueue saved = savedRequests();
  ASSERT_EQ(saved.size(), 3U);
  EXPECT_EQ(saved[0]->serial(), "ABC");
  EXPECT_EQ(saved[1]->parameters(), nullptr);  // the marker
  EXPECT_EQ(saved[2]->serial(), "late");
  EXPECT_EQ(saved[2]->auth(), nullptr) << "while a marker is pending no cached one is attached";
}

TEST(AgentQueue, ASavedRequestWaitsForItsMinuteAndGoesToItsOwnHost) {
  const AccountServer server;
  Application application(kNoServer);
  const auto saved = streamingRequest();
  saved->setLastFail(application.clock().now());
  saved->setShouldRenewSessionAfter(true);  // is not kept
  saved->setAuth(fullAccess(server.hitServer()));
  RequestsFile(fileOf()).save({saved});
  orbiqAgent::sharedAgent().addRequestToQueue(streamingRequest());
  ASSERT_TRUE(application.log().waitFor("We have now 3 request(s) to handle"));
  application.clock().advance(60);
  Application::enterForeground();
  ASSERT_TRUE(application.log().waitFor("We have now 1 request(s) to handle"));
  EXPECT_EQ(server.requestLines("/"), (std::vector<std::string>{"GET /hit/ABC HTTP/1.1"}));
  EXPECT_EQ(application.log().count("ShouldRenewSession"), 0U);
}

TEST(AgentQueue, OfALongerFileEachFailedHeadIsDropped) {
  const Application application(kNoServer);
  RequestQueue saved;
  while (saved.size() < 502) {
    saved.push_back(streamingRequest());
    saved.back()->setAuth(fullAccess(""));
  }
  RequestsFile(fileOf()).save(saved);
  const orbiqAgent& agent = orbiqAgent::sharedAgent();
  ASSERT_TRUE(application.log().waitFor("handling resulted in a timeout or lack of connection", 4));
  EXPECT_EQ(application.log().count("We have now 500 request(s) to handle"), 1U);
  EXPECT_EQ(counts(agent.statistics()), (Counts{502, 0, 0, 0, 0, 3, 0, 0, 499}));
  EXPECT_EQ(agent.statistics().lastFailure, "ABC: an earlier run got no authorization for it");
}

TEST(AgentQueue, AtRestTheFileIsSyncedOnceAndMemoryGivenBack) {
  const auto residentPages = [] {
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    return pages;
  };
  // As the last addition found them: on a busy machine there may have been a rest before.
  std::size_t before = 0;
  std::size_t atWork = 0;
  Application application(kNoServer, [&](HostDescription& host, Platform& /*platform*/) {
    host.logSink = [&, record = host.logSink](const LogLine& line) {
      if (line.text.find("We have now 16 ") != line.text.npos) {
        before = DiskCalls::soFar().files;
        atWork = residentPages();
      }
      record(line);
    };
  });
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  for (int i = 0; i < 16; ++i) {
    agent.addRequestToQueue(streamingRequest(SendingModeHost, std::string(500'000, 'x')));
  }
  ASSERT_TRUE(application.log().waitFor("We have now", 16));
  ASSERT_TRUE(DiskCalls::waitForFiles(before + 1));
#ifndef ORBIQ_KEEPS_FREED_MEMORY
  EXPECT_LT(residentPages() + 1'000, atWork);
#endif
  agent.addRequestToQueue(streamingRequest());
  ASSERT_TRUE(DiskCalls::waitForFiles(before + 2));
  EXPECT_EQ(DiskCalls::soFar().files, before + 2);
}

}  // namespace
}  // namespace orbiq::test
