// What a connection that is kept between two requests may bring, and what it may not.
#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "orbiq/services/platform/http/HttpClient.h"
#include "tests/support/HttpExpectations.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/Torture.h"

namespace orbiq::test {
namespace {

using steps::readRequest;
using steps::reset;
using steps::send;

/// Each case is gone through without and with TLS.
class KeptConnectionTest : public testing::TestWithParam<bool> {
 protected:
  const TlsIdentity* tls() const { return GetParam() ? &identity : nullptr; }
  HttpResult get(const ScriptedServer& server) { return client->send(requestFor(server.url())); }

  const CertificateAuthority authority;
  const TlsIdentity identity = authority.issue();
  std::unique_ptr<HttpClient> client = makeHttpClient(authority.bundle());
};

INSTANTIATE_TEST_SUITE_P(Over, KeptConnectionTest, testing::Bool(),
                         [](const auto& made) { return made.param ? "Tls" : "Plain"; });

TEST_P(KeptConnectionTest, IsTheOnlyOne) {
  const ScriptedServer first([](const std::string&) { return answer(200, "x"); }, tls());
  // Slow, since libcurl tells the older of two connections by the millisecond.
  const ScriptedServer second(
      {{readRequest(), steps::drip(answer(200, "y")), steps::untilPeerCloses()}}, tls());
  for (int i = 0; i < 3; ++i) expectData(get(first), 200, "x");
  EXPECT_EQ(first.connectionCount(), 1U);
  expectData(get(second), 200, "y");
  EXPECT_TRUE(first.waitForClientsGone(1));
}

TEST_P(KeptConnectionTest, MayEndAfterEachAnswer) {
  const std::size_t times = tortured(200, 2'000);
  for (const Step& end : {send(""), reset(), readRequest()}) {
    const ScriptedServer server(
        std::vector<Script>(times, {readRequest(), send(answer(200, "x")), end}), tls());
    std::size_t answered = 0;
    for (std::size_t i = 0; i < times; ++i) answered += get(server).data == "x";
    EXPECT_EQ(answered, times);
  }
}

TEST_P(KeptConnectionTest, BringsNoAnswerThatNobodyAskedFor) {
  const std::string stray = answer(200, "stray");
  const struct {
    std::string first;
    std::string later;
    bool closes;
  } cases[] = {
      {answer(200, "first"), answer(408, "too late"), true},
      {answer(200, "first"), stray, false},
      {answer(200, "first"), "s", false},
      {answer(200, "first") + stray, "", false},
      {answer(200, "first") + "s", stray.substr(1), false},
  };
  for (const auto& [first, later, closes] : cases) {
    std::promise<void> firstIsRead;
    std::promise<void> sent;
    const ScriptedServer server(
        {{readRequest(), send(first), [&](ServedConnection&) { firstIsRead.get_future().wait(); },
          send(later),
          [&, closing = closes](ServedConnection& connection) {
            sent.set_value();
            if (!closing) connection.readRequest();
            if (!closing) connection.send(answer(200, "second"));
          }},
         {readRequest(), send(answer(200, "second"))}},
        tls());
    expectData(get(server), 200, "first");
    firstIsRead.set_value();
    sent.get_future().wait();
    if (closes) {
      EXPECT_TRUE(server.waitForEnds(1));
    }
    expectData(get(server), 200, "second");
    EXPECT_EQ(server.requests().size(), 2U) << first << later;
  }
}

TEST_P(KeptConnectionTest, HasARequestRepeatedOnceAndOnlyWhenNothingCame) {
  const Script ok = {readRequest(), send(answer(200, "x"))};
  const struct {
    Script rest;    ///< what its first connection does after an answer
    Script second;  ///< what another one does
    bool isAnswered;
    std::size_t requests;
  } cases[] = {
      {{readRequest()}, ok, true, 3},
      {{readRequest(), reset()}, ok, true, 3},
      // Not twice.
      {{readRequest()}, {readRequest()}, false, 3},
      {{readRequest(), reset()}, {readRequest(), reset()}, false, 3},
      // The answer had begun.
      {{readRequest(), send("H")}, ok, false, 2},
      {{readRequest(), send("HTTP/1.1 200 O"), reset()}, ok, false, 2},
      {{readRequest(), send("HTTP/1.1 200 OK\r\n")}, ok, false, 2},
  };
  for (const auto& [rest, second, isAnswered, requests] : cases) {
    Script first = ok;
    first.insert(first.end(), rest.begin(), rest.end());
    const ScriptedServer server({first, second, ok}, tls());
    // Which connection is kept of two, libcurl decides by the millisecond.
    client = makeHttpClient(authority.bundle());
    expectData(get(server), 200, "x");
    EXPECT_EQ(get(server).data == "x", isAnswered);
    EXPECT_EQ(server.requests().size(), requests);
  }
  // A connection that was not used before is no reason.
  const ScriptedServer server({{readRequest()}, ok}, tls());
  expectNothing(get(server));
  EXPECT_EQ(server.requests().size(), 1U);
}

/// As where the network has changed: what is sent over the kept connection arrives nowhere.
TEST_P(KeptConnectionTest, EndsWhenNothingIsAcknowledged) {
  std::promise<int> deafened;
  const ScriptedServer server(
      {{readRequest(),
        [&](ServedConnection& connection) { deafened.set_value(connection.goDeaf()); },
        send(answer(200, "x")), steps::untilPeerCloses()},
       {readRequest(), send(answer(200, "x"))}},
      tls());
  expectData(get(server), 200, "x");
  if (const int failure = deafened.get_future().get(); failure != 0) {
    GTEST_SKIP() << "no packet can be dropped here: " << std::strerror(failure);
  }
  expectData(get(server), 200, "x");
  EXPECT_EQ(server.requests().size(), 2U);
}

}  // namespace
}  // namespace orbiq::test
