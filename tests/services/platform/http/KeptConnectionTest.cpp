// What a connection that is kept between two requests may bring, and what it may not.
#include <gtest/gtest.h>

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
  const Script closing = {readRequest(), send(answer(200, "x"))};
  const Script resetting = {readRequest(), send(answer(200, "x")), reset()};
  const struct {
    Script script;
    bool isAwaited;  ///< whether the client sends again only when the connection has ended
  } cases[] = {{closing, false},
               {closing, true},
               {resetting, false},
               {resetting, true},
               {{readRequest(), send(answer(200, "x")), readRequest()}, false}};
  const std::size_t times = tortured(200, 2'000);
  for (const auto& [script, isAwaited] : cases) {
    const ScriptedServer server(std::vector<Script>(times, script), tls());
    std::size_t answered = 0;
    for (std::size_t i = 1; i <= times; ++i) {
      if (get(server).data == "x") ++answered;
      if (!isAwaited) continue;
      ASSERT_TRUE(server.waitForEnds(i));
    }
    EXPECT_EQ(answered, times);
  }
}

TEST_P(KeptConnectionTest, BringsNoAnswerThatNobodyAskedFor) {
  const std::string stray = answer(200, "stray");
  const std::string chunked =
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nfirst\r\n0\r\n\r\n";
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
      {chunked + stray, "", false},
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
  const std::string ok = answer(200, "x");
  const struct {
    Script first;   ///< what its first connection does
    Script second;  ///< what another one does
    bool isAnswered;
    std::size_t requests;
  } cases[] = {
      {{readRequest(), send(ok), readRequest()}, {readRequest(), send(ok)}, true, 3},
      {{readRequest(), send(ok), readRequest(), reset()}, {readRequest(), send(ok)}, true, 3},
      // Not twice.
      {{readRequest(), send(ok), readRequest()}, {readRequest()}, false, 3},
      {{readRequest(), send(ok), readRequest(), reset()}, {readRequest(), reset()}, false, 3},
      // The answer had begun.
      {{readRequest(), send(ok), readRequest(), send("H")}, {readRequest(), send(ok)}, false, 2},
      {{readRequest(), send(ok), readRequest(), send("HTTP/1.1 200 O"), reset()},
       {readRequest(), send(ok)},
       false,
       2},
      {{readRequest(), send(ok), readRequest(), send("HTTP/1.1 200 OK\r\n")},
       {readRequest(), send(ok)},
       false,
       2},
  };
  for (const auto& [first, second, isAnswered, requests] : cases) {
    const ScriptedServer server({first, second, {readRequest(), send(ok)}}, tls());
    // Which connection is kept of two, libcurl decides by the millisecond.
    client = makeHttpClient(authority.bundle());
    expectData(get(server), 200, "x");
    if (isAnswered) {
      expectData(get(server), 200, "x");
    } else {
      expectNothing(get(server));
    }
    EXPECT_EQ(server.requests().size(), requests);
  }
  // A connection that was not used before is no reason.
  const ScriptedServer server({{readRequest()}, {readRequest(), send(ok)}}, tls());
  expectNothing(get(server));
  EXPECT_EQ(server.requests().size(), 1U);
}

}  // namespace
}  // namespace orbiq::test
