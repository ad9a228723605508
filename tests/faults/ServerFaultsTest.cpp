// Every way in which a server can misbehave, met by an authorization exchange and by a hit.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <string>
#include <vector>

#include "tests/support/Application.h"

namespace orbiq::test {
namespace {

using Counts = std::vector<std::uint64_t>;

constexpr std::size_t kFlood = std::size_t{1} << 30U;

/// Sends a gibibyte, if it is let.
Step flood() {
  return [](ServedConnection& connection) {
    const std::string block(std::size_t{1} << 20U, 'x');
    for (std::size_t sent = 0; sent < kFlood; sent += block.size()) connection.send(block);
  };
}

struct Fault {
  const char* name;
  /// What follows the reading of the request.
  Script script;
  /// Whether status and headers arrive, which is all that a hit asks for.
  bool answersHits;
};

const std::string kPromise = "HTTP/1.1 200 OK\r\nContent-Length: 1073741824\r\n\r\n";

const std::vector<Fault>& faults() {
  static const std::vector<Fault> all{
      {"Reset", {steps::reset()}, false},
      {"ClosesAtOnce", {}, false},
      {"Stalls", {steps::untilPeerCloses()}, false},
      {"Garbage", {steps::send("\x16\x03\x01 this is no HTTP\r\n\r\n")}, false},
      {"HalfAHeader", {steps::send("HTTP/1.1 200 OK\r\nConte")}, false},
      {"Drips", {steps::drip("HTTP/1.1 200 OK\r\nX: " + std::string(5'000, 'x'))}, false},
      {"FloodsHeaders", {steps::send("HTTP/1.1 200 OK\r\nX: "), flood()}, false},
      {"OnlyInforms", {steps::send("HTTP/1.1 100 Continue\r\n\r\n")}, false},
      {"FloodsTheBody", {steps::send(kPromise), flood()}, true},
      {"CutsTheBody", {steps::send(kPromise + "access=full|host=http://h/|cmsVI=1")}, true},
  };
  return all;
}

class ServerFaults : public testing::TestWithParam<std::size_t> {
 protected:
  static std::size_t peakKibibytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<std::size_t>(usage.ru_maxrss);
  }
  static void limit(Platform& platform) {
    platform.makeHttpClient = clientsThatGiveUpAfter(std::chrono::milliseconds(500));
  }
  const Fault& fault() const { return faults()[GetParam()]; }
  std::vector<Script> misbehaving() const {
    Script script{steps::readRequest()};
    script.insert(script.end(), fault().script.begin(), fault().script.end());
    return {script};
  }
  Counts accounts() { return counts(orbiqAgent::sharedAgent().statistics()); }
};

TEST_P(ServerFaults, OnTheHit) {
  ScriptedServer hits(misbehaving());
  AccountServer server;
  server.answerAuthorizations([&](const std::string&) {
    return answer(200, "access=full|host=" + hits.url("/") + "|cmsVI=7");
  });
  Application application(server.authorizationServer(),
                          [](HostDescription&, Platform& platform) { limit(platform); });
  const std::size_t before = peakKibibytes();
  orbiqAgent::sharedAgent().addRequestToQueue(streamingRequest());
  if (fault().answersHits) {
    ASSERT_TRUE(application.log().waitFor("We have now 0 request(s) to handle"));
    EXPECT_EQ(accounts(), (Counts{1, 1, 0, 0, 0, 0, 0, 0, 0}));
  } else {
    ASSERT_TRUE(application.log().waitFor("handling resulted in a timeout or lack of connection"));
    EXPECT_EQ(accounts(), (Counts{1, 0, 0, 0, 0, 0, 0, 0, 1}));
    EXPECT_FALSE(orbiqAgent::sharedAgent().statistics().lastFailure.isEmpty());
  }
  EXPECT_LT(peakKibibytes() - before, 65'536U);
}

TEST_P(ServerFaults, OnTheExchange) {
  ScriptedServer authorizations(misbehaving());
  Application application(authorizations.url("/"),
                          [](HostDescription&, Platform& platform) { limit(platform); });
  const std::size_t before = peakKibibytes();
  Application::tagger("ABC")->sendHit();
  ASSERT_TRUE(application.log().waitFor("handling resulted in a timeout or lack of connection"));
  EXPECT_EQ(application.log().count("Serial ABC on host ABC"), 1U);
  EXPECT_EQ(accounts(), (Counts{1, 0, 0, 0, 0, 0, 0, 0, 1}));
  EXPECT_LT(peakKibibytes() - before, 65'536U);
}

TEST(ServerThatResetsEachConnection, GetsEveryHitOnce) {
  constexpr std::size_t kHits = 200;
  ScriptedServer hits(
      std::vector<Script>(kHits, {steps::readRequest(), steps::send(answer(200)), steps::reset()}));
  AccountServer server;
  server.answerAuthorizations([&](const std::string&) {
    return answer(200, "access=full|host=" + hits.url("/") + "|cmsVI=7");
  });
  Application application(server.authorizationServer());
  const auto tagger = Application::tagger("ABC");
  for (std::size_t i = 0; i < kHits; ++i) tagger->sendHit();
  ASSERT_TRUE(application.log().waitFor("We have now 0 request(s) to handle"));
  ASSERT_TRUE(application.log().waitFor("We have now", 2 * kHits));
  EXPECT_EQ(counts(orbiqAgent::sharedAgent().statistics()),
            (Counts{kHits, kHits, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(hits.requests().size(), kHits);
}

INSTANTIATE_TEST_SUITE_P(When, ServerFaults, testing::Range<std::size_t>(0, faults().size()),
                         [](const auto& made) { return std::string(faults()[made.param].name); });

}  // namespace
}  // namespace orbiq::test
