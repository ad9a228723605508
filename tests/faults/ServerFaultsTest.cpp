// Servers that misbehave, met by an authorization exchange and by a hit.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/support/Application.h"

namespace orbiq::test {
namespace {

using Counts = std::vector<std::uint64_t>;

const std::string kPromise = "HTTP/1.1 200 OK\r\nContent-Length: 1073741824\r\n\r\n";

/// Sends a gibibyte, if it is let.
void flood(ServedConnection& connection) {
  const std::string block(std::size_t{1} << 20U, 'x');
  for (int i = 0; i < 1024; ++i) connection.send(block);
}

/// Each of these takes the request and gives no whole answer.
const struct Fault {
  const char* name;
  std::vector<Step> steps;
  bool answersHits;  ///< whether status and headers arrive, which is all that a hit asks for

  friend void PrintTo(const Fault& fault, std::ostream* stream) { *stream << fault.name; }
} kFaults[]{{"Stalls", {steps::untilPeerCloses()}, false},
            {"CutsTheBody", {steps::send(kPromise + "access=full|host=http://h/|cmsVI=1")}, true},
            {"FloodsTheBody", {steps::send(kPromise), flood}, true}};

class ServerFaults : public testing::TestWithParam<Fault> {
 protected:
  ServerFaults() : script(GetParam().steps) { script.insert(script.begin(), steps::readRequest()); }
  void TearDown() override {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    EXPECT_LT(usage.ru_maxrss - before.ru_maxrss, 65'536);
  }
  void start(const std::string& authorizationServer) {
    application.emplace(authorizationServer, [](HostDescription&, Platform& platform) {
      if (GetParam().answersHits) return;  // the end does not come by a limit
      platform.makeHttpClient = clientsThatGiveUpAfter(std::chrono::milliseconds(500));
    });
    getrusage(RUSAGE_SELF, &before);
    Application::tagger("ABC")->sendHit();
  }
  void expectKept() {
    ASSERT_TRUE(application->log().waitFor("handling resulted in a timeout or lack of connection"));
    EXPECT_EQ(counts(orbiqAgent::sharedAgent().statistics()), (Counts{1, 0, 0, 0, 0, 0, 0, 0, 1}));
  }

  Script script;
  rusage before{};
  std::optional<Application> application;
};

TEST_P(ServerFaults, OnTheHit) {
  ScriptedServer hits({script});
  AccountServer server;
  server.grantHost(hits.url("/"));
  start(server.authorizationServer());
  if (!GetParam().answersHits) return expectKept();
  ASSERT_TRUE(application->log().waitFor("We have now 0 request(s) to handle"));
  EXPECT_EQ(orbiqAgent::sharedAgent().statistics().sent, 1U);
}

TEST_P(ServerFaults, OnTheExchange) {
  ScriptedServer authorizations({script});
  start(authorizations.url("/"));
  expectKept();
  EXPECT_EQ(application->log().count("Serial ABC on host ABC"), 1U);
}

INSTANTIATE_TEST_SUITE_P(When, ServerFaults, testing::ValuesIn(kFaults),
                         [](const auto& made) { return std::string(made.param.name); });

}  // namespace
}  // namespace orbiq::test
