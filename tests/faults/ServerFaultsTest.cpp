// Servers that misbehave, met by an authorization exchange and by a hit.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <string>

#include "tests/support/Application.h"

namespace orbiq::test {
namespace {

const std::string kPromise = "HTTP/1.1 200 OK\r\nContent-Length: 1073741824\r\n\r\n";

/// Sends a gibibyte, if it is let.
void flood(ServedConnection& connection) {
  const std::string block(std::size_t{1} << 20U, 'x');
  for (int i = 0; i < 1024; ++i) connection.send(block);
}

/// Each of these takes the request and gives no whole answer.
const struct Fault {
  const char* name;
  Script script;
  bool isOfHits;
  bool isSent;  ///< status and headers arrive, which is all that a hit asks for

  friend void PrintTo(const Fault& fault, std::ostream* stream) { *stream << fault.name; }
} kFaults[]{
    {"Stalls", {steps::readRequest(), steps::untilPeerCloses()}, true, false},
    {"CutsTheBody", {steps::readRequest(), steps::send(kPromise + "half")}, true, true},
    {"FloodsTheExchange", {steps::readRequest(), steps::send(kPromise), flood}, false, false}};

class ServerFaults : public testing::TestWithParam<Fault> {};

TEST_P(ServerFaults, LoseNothingAndHoldNothingUp) {
  const auto& [name, script, isOfHits, isSent] = GetParam();
  ScriptedServer faulty({script});
  AccountServer accounts;
  accounts.grantHost(faulty.url("/"));
  const std::string exchange = isOfHits ? accounts.authorizationServer() : faulty.url("/");
  Application application(exchange, [](HostDescription&, Platform& platform) {
    if (GetParam().name != std::string("Stalls")) return;  // the end does not come by a limit
    platform.makeHttpClient = clientsThatGiveUpAfter(std::chrono::milliseconds(500));
  });
  rusage before{};
  getrusage(RUSAGE_SELF, &before);
  Application::tagger("ABC")->sendHit();
  ASSERT_TRUE(application.log().waitFor(isSent ? "We have now 0 request(s) to handle"
                                               : "handling resulted in a timeout"));
  const Statistics statistics = orbiqAgent::sharedAgent().statistics();
  EXPECT_EQ(statistics.sent, isSent ? 1U : 0U);
  EXPECT_EQ(statistics.pending, isSent ? 0U : 1U);
  EXPECT_EQ(application.log().count("Serial ABC on host ABC"), isOfHits ? 0U : 1U);
  rusage after{};
  getrusage(RUSAGE_SELF, &after);
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 65'536);
}

INSTANTIATE_TEST_SUITE_P(When, ServerFaults, testing::ValuesIn(kFaults),
                         [](const auto& made) { return std::string(made.param.name); });

}  // namespace
}  // namespace orbiq::test
