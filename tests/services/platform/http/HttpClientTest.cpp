#include <curl/curl.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "orbiq/services/platform/host/Platform.h"
#include "orbiq/services/platform/http/HttpClient.h"
#include "tests/support/HttpExpectations.h"
#include "tests/support/NameLookups.h"
#include "tests/support/ScriptedServer.h"

namespace orbiq::test {
namespace {

using namespace std::chrono_literals;

constexpr auto kShort = 500ms;

/// The function of libcurl's that fails.
std::string_view failing;

template <class Function>
Function original(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

std::string redirect(const std::string& location, int status = 302, std::string_view body = {}) {
  return answer(status, body, "Location: " + location + "\r\n");
}

class HttpClientTest : public testing::Test {
 protected:
  HttpResult get(const std::string& url, std::chrono::milliseconds timeout = 60s) {
    HttpRequest request = requestFor(url);
    request.timeout = timeout;
    return client->send(request);
  }
  /// What comes of a server that reads the request, does this, and closes.
  HttpResult getFrom(Script script, std::chrono::milliseconds timeout = 60s) {
    script.insert(script.begin(), steps::readRequest());
    const ScriptedServer server({std::move(script)});
    return get(server.url(), timeout);
  }
  HttpResult getFrom(const std::string& text) { return getFrom({steps::send(text)}); }
  HttpResult getStalledAfter(const std::string& text) {
    return getFrom({steps::send(text), steps::untilPeerCloses()}, kShort);
  }

  /// What comes of a server whose "/start/page?q" leads to `location`, and which gives back the
  /// target of every other request.
  HttpResult getLeadingTo(const std::string& location, int status = 302) {
    const ScriptedServer server([&](const std::string& head) {
      const std::string target = requestTarget(head);
      return target == "/start/page?q" ? redirect(location, status, "stay") : answer(200, target);
    });
    return get(server.url("/start/page?q"));
  }

  static void expectNotFollowed(HttpResult result, const char* data, const char* cause) {
    EXPECT_EQ(result.error ? result.error->text : "followed", cause);
    result.error.reset();
    expectData(result, 302, data);
  }

  const std::unique_ptr<HttpClient> client = makeHttpClient("");
};

TEST_F(HttpClientTest, asksWithHostAndUserAgentAndNothingMore) {
  const ScriptedServer server([](const std::string&) { return answer(200); });
  const std::string host = "Host: 127.0.0.1:" + std::to_string(server.port()) + "\r\n";
  get(server.url("/a/../b/./c?q=%20x"));
  HttpRequest request = requestFor(server.url() + "#part");
  for (const String& agent : {String("A\r\nEvil: 1\nB\t\x7F"), String(), String("\r\n")}) {
    request.userAgent = agent;
    client->send(request);
  }
  const std::string plain = "GET / HTTP/1.1\r\n" + host;
  const std::vector<std::string> expected = {
      "GET /a/../b/./c?q=%20x HTTP/1.1\r\n" + host + "User-Agent: Agent/1.0\r\n\r\n",
      plain + "User-Agent: AEvil: 1B\r\n\r\n", plain + "\r\n", plain + "\r\n"};
  EXPECT_EQ(server.requests(), expected);
}

TEST_F(HttpClientTest, givesStatusHeadersAndData) {
  const struct {
    std::string text;
    int status;
    const char* data;
  } cases[] = {
      {answer(200, "body"), 200, "body"},
      {answer(404, "body"), 404, "body"},
      {answer(503), 503, ""},
      {"HTTP/1.1 204 None\r\n\r\n", 204, ""},
      {"HTTP/1.0 200 OK\r\n\r\nuntil the end", 200, "until the end"},
      {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
       "3\r\nabc\r\n2\r\nde\r\n0\r\nTrailer: x\r\n\r\n",
       200, "abcde"},
      {"HTTP/1.1 103 Early\r\n\r\n" + answer(404, "late"), 404, "late"},
  };
  for (const auto& [text, status, data] : cases) expectData(getFrom(text), status, data);
  expectData(getFrom({steps::drip(answer(200, "slow"))}), 200, "slow");

  const auto result =
      getFrom("HTTP/1.1 103 Early\r\nOnly-Early: x\r\n\r\n" +
              answer(200, "", "DATE: first\r\nX-Fold: a\r\n  b\r\ndate:  second \r\nEmpty:\r\n"));
  const auto value = [&](std::string_view name) {
    const std::string* found = result.response.value().header(name);
    return found == nullptr ? "none" : *found;
  };
  EXPECT_EQ(value("dAtE"), "second");
  EXPECT_EQ(value("x-fold"), "a b");
  EXPECT_EQ(value("Empty"), "");
  EXPECT_EQ(value("Dat"), "none");
  EXPECT_EQ(value("Only-Early"), "none");
}

TEST_F(HttpClientTest, keepsTheResponseOfABodyThatDoesNotComeWhole) {
  const std::string head = "HTTP/1.1 200 OK\r\nDate: now\r\nContent-Length: 10\r\n\r\n";
  const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  for (const std::string& text :
       {head, head + "half", chunked + "5\r\nab", chunked + "nonsense\r\n"}) {
    expectResponseOnly(getFrom(text), 200);
  }
  const auto stalled = getStalledAfter(head + "half");
  expectResponseOnly(stalled, 200);
  EXPECT_EQ(*stalled.response.value().header("Date"), "now");
  EXPECT_EQ(stalled.error->code, CURLE_OPERATION_TIMEDOUT);
}

TEST_F(HttpClientTest, hasNoResponseWithoutWholeHeaders) {
  const std::string head = "HTTP/1.1 200 OK\r\nDate: now\r\n";
  for (const std::string& text :
       {std::string(), head, std::string("an answer of HTTP/0.9\n"),
        std::string("\0\xFF\xFE garbage\r\n\r\n", 15),
        std::string("HTTP/1.1 101 Switching\r\nUpgrade: x\r\n\r\nrest")}) {
    expectNothing(getFrom(text));
  }
  for (const std::string& text : {std::string(), head, std::string("HTTP/1.1 103 E\r\n\r\n")}) {
    const auto stalled = getStalledAfter(text);
    expectNothing(stalled);
    EXPECT_EQ(stalled.error->code, CURLE_OPERATION_TIMEDOUT);
  }
  expectNothing(getFrom({steps::reset()}));
  const ClosedPort nobody;
  expectNothing(get("http://127.0.0.1:" + std::to_string(nobody.port()) + "/"));
  for (const auto timeout : {0ms, std::chrono::milliseconds::min()}) {
    expectNothing(getFrom({steps::untilPeerCloses()}, timeout));
  }
}

TEST_F(HttpClientTest, boundsBodyAndHeaders) {
  const std::string body(std::size_t{1} << 20, 'b');
  expectData(getFrom(answer(200, body)), 200, body);
  expectResponseOnly(getFrom(answer(200, body + 'b')), 200);
  expectResponseOnly(
      getFrom({steps::send("HTTP/1.1 200 OK\r\n\r\n" + body + body), steps::untilPeerCloses()}),
      200);

  const std::string line = "X: " + std::string(1019, 'h') + "\r\n";  // 1 KiB
  std::string headers;
  for (int i = 0; i < 255; ++i) headers += line;
  expectData(getFrom(answer(200, "x", headers)), 200, "x");
  expectNothing(getFrom(answer(200, "x", headers + line)));
  expectNothing(getFrom("HTTP/1.1 200 OK\r\nX: " + body));
  // Of a single line libcurl itself takes 100 KiB.
  expectData(getFrom(answer(200, "x", "X: " + std::string(102'390, 'h') + "\r\n")), 200, "x");
  expectNothing(getFrom(answer(200, "x", "X: " + std::string(102'400, 'h') + "\r\n")));
}

TEST(HttpClientAnew, makesAtTheNextSendWhatCouldNotBeMade) {
  const ScriptedServer server([](const std::string&) { return answer(200, "x"); });
  for (const char* function : {"curl_global_init_mem", "curl_multi_init", "curl_easy_init"}) {
    failing = function;
    const auto late = makeHttpClient("");
    for (int i = 0; i < 2; ++i) expectNothing(late->send(requestFor(server.url())));
    failing = "";
    expectData(late->send(requestFor(server.url())), 200, "x");
  }
  EXPECT_EQ(server.requests().size(), 3U);
}

TEST_F(HttpClientTest, guessesNoHostAndLooksNothingUp) {
  const std::pair<int, std::vector<const char*>> cases[] = {
      {CURLE_UNSUPPORTED_PROTOCOL,
       {"ABC", "guessed.invalid/x", "//guessed.invalid/x", "?q", "ftp://guessed.invalid/",
        "file:///etc/hostname", "guessed.invalid:80"}},
      {CURLE_URL_MALFORMAT,
       {"http:guessed.invalid", "http:/guessed.invalid/x", "http:///guessed.invalid/x"}},
  };
  for (const auto& [code, texts] : cases) {
    for (const char* text : texts) {
      const auto result = get(text);
      expectNothing(result);
      EXPECT_EQ(result.error->code, code) << text;
    }
  }
  EXPECT_EQ(nameLookupCount(), 0u);

  const HangingLookup hanging;  // a look-up that is wanted does not delay the end
  const auto result = get(std::string("http://") + HangingLookup::kName + "/", kShort);
  expectNothing(result);
  EXPECT_EQ(nameLookupCount(), 1u);
}

// As when authorizations and hits take turns: no connection is kept, but both servers' sessions.
TEST_F(HttpClientTest, goesOnWithTheTlsSessionsOfTwoServersInTurn) {
  const CertificateAuthority authority;
  const TlsIdentity one = authority.issue();
  const TlsIdentity other = authority.issue();
  const auto ok = [](const std::string&) { return answer(200, "x", "Connection: close\r\n"); };
  const ScriptedServer servers[] = {ScriptedServer(ok, &one), ScriptedServer(ok, &other)};
  const auto trusting = makeHttpClient(authority.bundle());
  for (int turn = 0; turn < 3; ++turn) {
    for (const ScriptedServer& server : servers) {
      expectData(trusting->send(requestFor(server.url())), 200, "x");
    }
  }
  for (const ScriptedServer& server : servers) {
    EXPECT_EQ(server.connectionCount(), 3U);
    EXPECT_EQ(server.resumedCount(), 2U);
  }
  // Another client, as another thread has, begins anew.
  expectData(makeHttpClient(authority.bundle())->send(requestFor(servers[0].url())), 200, "x");
  EXPECT_EQ(servers[0].connectionCount(), 4U);
  EXPECT_EQ(servers[0].resumedCount(), 2U);
}

TEST_F(HttpClientTest, usesTheProxyOfTheEnvironmentAndAddsNothingForIt) {
  const ScriptedServer proxy([](const std::string&) { return answer(503, "proxy"); });
  for (const char* name : {"http_proxy", "https_proxy"}) setenv(name, proxy.url("").c_str(), 1);
  expectData(get("http://somewhere.invalid/x"), 503, "proxy");
  EXPECT_EQ(proxy.requests().at(0),
            "GET http://somewhere.invalid/x HTTP/1.1\r\nHost: somewhere.invalid\r\n"
            "User-Agent: Agent/1.0\r\n\r\n");
  // What a proxy says to a tunnel is no response of the server.
  expectNothing(get("https://somewhere.invalid/x"));
  EXPECT_EQ(proxy.requests().size(), 2u);
  for (const char* name : {"http_proxy", "https_proxy"}) unsetenv(name);
}

TEST_F(HttpClientTest, trustsOnlyWhatItIsToldToTrust) {
  const CertificateAuthority authority;
  TlsIdentity outdated = authority.issue();
  outdated.speaksOnlyTls10 = true;
  const std::pair<TlsIdentity, const char*> untrusted[]{
      {authority.issueExpired(), "certificate has expired"},
      {authority.issue("DNS:elsewhere.example"), "no alternative certificate subject name matches"},
      {CertificateAuthority::selfSigned(), "self-signed certificate"},
      {CertificateAuthority().issue(), "unable to get local issuer certificate"},
      {outdated, "tlsv1 alert protocol version"},
  };
  const auto ok = [](const std::string&) { return answer(200, "secret"); };
  const auto trusting = makeHttpClient(authority.bundle());
  for (const auto& [identity, problem] : untrusted) {
    const ScriptedServer server(ok, &identity);
    const HttpResult result = trusting->send(requestFor(server.url()));
    expectNothing(result);
    EXPECT_NE(result.error->text.find(problem), std::string::npos) << result.error->text;
    EXPECT_TRUE(server.requests().empty());
  }
  const TlsIdentity identity = authority.issue();
  const ScriptedServer server(ok, &identity);
  expectData(trusting->send(requestFor(server.url())), 200, "secret");
  expectNothing(get(server.url()));
  expectNothing(makeHttpClient(authority.bundle() + ".missing")->send(requestFor(server.url())));
  EXPECT_EQ(server.requests().size(), 1u);
}

TEST_F(HttpClientTest, followsRedirectsWithTheSameGet) {
  for (const int status : {301, 302, 303, 307, 308}) {
    const ScriptedServer server([&](const std::string& head) {
      return requestTarget(head) == "/" ? redirect("/end", status, "moved") : answer(404, "end");
    });
    // By a client of its own: which connection is kept of two, libcurl decides by the millisecond.
    expectData(makeHttpClient("")->send(requestFor(server.url())), 404, "end");
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    std::string expected = requests[0];
    expected.insert(expected.find('/') + 1, "end");
    EXPECT_EQ(requests[1], expected);
    EXPECT_EQ(server.connectionCount(), 1u);
  }
}

TEST_F(HttpClientTest, resolvesTheLocationOfARedirect) {
  const std::pair<const char*, const char*> cases[] = {
      {"/end", "/end"},
      {"end?x=%20", "/start/end?x=%20"},
      {"../end", "/end"},
      {"?r", "/start/page?r"},
      {"/a/../../b/./c", "/b/c"},
      {"/end#part", "/end"},
      {"/two words", "/two%20words"},
      {"/caf\xC3\xA9|", "/caf%c3%a9|"},
  };
  for (const auto& [location, target] : cases) expectData(getLeadingTo(location), 200, target);
  const ScriptedServer other([](const std::string&) { return answer(200, "other"); });
  for (const std::string scheme : {"http:", "HTTP:", ""}) {
    expectData(getLeadingTo(scheme + other.url("/two words\xC3\xA9").substr(5)), 200, "other");
    EXPECT_EQ(requestTarget(other.requests().back()), "/two%20words%c3%a9");
  }
}

TEST_F(HttpClientTest, leavesTheResponseOfARedirectThatIsNotFollowedAndItsCause) {
  for (const char* location : {"ftp://127.0.0.1/x", "file:///etc/hostname"}) {
    expectNotFollowed(getLeadingTo(location), "stay",
                      "the redirect leads to neither http nor https");
  }
  constexpr char kNoTarget[] = "the redirect names no target that can be used";
  for (const char* location : {"", "mailto:someone", "http://127.0.0.1:99999/", "http:/127.0.0.1/",
                               "http:x", "///127.0.0.1/x", "http:///127.0.0.1/"}) {
    expectNotFollowed(getLeadingTo(location), "stay", kNoTarget);
  }
  const ScriptedServer server([](const std::string&) { return answer(302, "no location"); });
  expectNotFollowed(get(server.url()), "no location", kNoTarget);
  for (const int status : {300, 305, 399, 201, 404}) {
    expectData(getLeadingTo("/end", status), status, "stay");
  }
  expectData(getLeadingTo("/end", 304), 304, "");
}

TEST_F(HttpClientTest, leavesOutTheNameAndPasswordOfUrlAndRedirect) {
  const ScriptedServer server([&](const std::string& head) {
    const std::size_t host = head.find("127.");
    const std::string here = head.substr(host, head.find('\r', host) - host);
    return requestTarget(head) == "/" ? redirect("http://us%65r:secret@" + here + "/end")
                                      : answer(200, "end");
  });
  for (const char* user : {"us%65r:secret@", "user@", "@"}) {
    std::string url = server.url();
    expectData(get(url.insert(url.find("127"), user)), 200, "end");
  }
  EXPECT_EQ(server.requests().size(), 6U);
  for (const std::string& head : server.requests()) {
    EXPECT_EQ(head.find("Authorization"), std::string::npos) << head;
    EXPECT_EQ(head.find('@'), std::string::npos) << head;
  }
}

TEST_F(HttpClientTest, followsSixteenRedirectsAndNoMore) {
  const ScriptedServer countdown([](const std::string& head) {
    const int left = std::stoi(requestTarget(head).substr(1));
    return left == 0 ? answer(200, "end") : redirect("/" + std::to_string(left - 1), 302, "on");
  });
  expectData(get(countdown.url("/16")), 200, "end");
  EXPECT_EQ(countdown.requests().size(), 17u);
  expectNotFollowed(get(countdown.url("/18")), "on", "too many redirects");
  EXPECT_EQ(countdown.requests().size(), 34u);
}

TEST_F(HttpClientTest, hasNoResponseWhenAHopBringsNone) {
  const ScriptedServer silent({{steps::readRequest(), steps::reset()}});
  expectNothing(getLeadingTo(silent.url()));
  const ScriptedServer cut({{steps::readRequest(), steps::send("HTTP/1.1 200 OK\r\n"
                                                               "Content-Length: 9\r\n\r\nhalf")}});
  expectResponseOnly(getLeadingTo(cut.url()), 200);
}

TEST_F(HttpClientTest, waitsForNoBodyOfARedirect) {
  const std::string body(5'000'000, 'x');
  const Script end = {steps::readRequest(), steps::send(answer(200, "end"))};
  for (const std::size_t sent : {std::size_t{0}, std::size_t{4}, body.size()}) {
    std::string start = redirect("/end", 302, body);
    start.resize(start.size() - body.size() + sent);
    const ScriptedServer server(
        {{steps::readRequest(), steps::send(start), steps::untilPeerCloses()}, end});
    expectData(get(server.url()), 200, "end");
  }
}

TEST_F(HttpClientTest, spendsOneTimeoutOnAllHops) {
  // Each hop stays well below the timeout; all of them together do not.
  const ScriptedServer server([](const std::string&) {
    std::this_thread::sleep_for(300ms);
    return redirect("/");
  });
  expectNothing(get(server.url(), 1s));
  EXPECT_GE(server.requests().size(), 2u);
  EXPECT_LT(server.requests().size(), 6u);
}

TEST_F(HttpClientTest, neverLeavesTls) {
  const CertificateAuthority authority;
  const TlsIdentity identity = authority.issue();
  const auto secure = makeHttpClient(authority.bundle());
  const ScriptedServer open([](const std::string&) { return answer(200, "open"); });
  const ScriptedServer closed(
      [&](const std::string& head) {
        const std::string target = requestTarget(head);
        return target == "/down"   ? redirect(open.url(), 302, "stay")
               : target == "/side" ? redirect("/end")
                                   : answer(200, "closed");
      },
      &identity);
  const ScriptedServer up([&](const std::string&) { return redirect(closed.url("/down")); });
  expectData(secure->send(requestFor(closed.url("/side"))), 200, "closed");
  expectNotFollowed(secure->send(requestFor(up.url())), "stay",
                    "the redirect leads from https to http");
  EXPECT_EQ(open.requests().size(), 0u);
}

TEST(PlatformTest, AClientThatCouldNotBeMadeIsMadeAtTheNextSend) {
  const ScriptedServer server([](const std::string&) { return answer(200); });
  int made = 0;
  ASSERT_EQ(Platform::install({.makeHttpClient = [&]() -> std::unique_ptr<HttpClient> {
              if (++made == 1) return nullptr;
              if (made == 2) throw std::bad_alloc();
              return makeHttpClient("");
            }}),
            nullptr);
  for (int i = 0; i < 2; ++i) expectNothing(Platform::send(requestFor(server.url())));
  for (int i = 0; i < 2; ++i) expectData(Platform::send(requestFor(server.url())), 200, "");
  EXPECT_EQ(made, 3);
  EXPECT_EQ(server.connectionCount(), 1U);
}

}  // namespace
}  // namespace orbiq::test

// They take libcurl's place for the whole program.
#define ORBIQ_TEST_VISIBLE extern "C" __attribute__((visibility("default")))

ORBIQ_TEST_VISIBLE CURLcode curl_global_init_mem(long flags, curl_malloc_callback allocate,
                                                 curl_free_callback release,
                                                 curl_realloc_callback reallocate,
                                                 curl_strdup_callback duplicate,
                                                 curl_calloc_callback allocateZeroed) {
  if (orbiq::test::failing == __func__) return CURLE_FAILED_INIT;
  return orbiq::test::original<decltype(&curl_global_init_mem)>(__func__)(
      flags, allocate, release, reallocate, duplicate, allocateZeroed);
}

ORBIQ_TEST_VISIBLE CURLM* curl_multi_init() {
  if (orbiq::test::failing == __func__) return nullptr;
  return orbiq::test::original<decltype(&curl_multi_init)>(__func__)();
}

ORBIQ_TEST_VISIBLE CURL* curl_easy_init() {
  if (orbiq::test::failing == __func__) return nullptr;
  return orbiq::test::original<decltype(&curl_easy_init)>(__func__)();
}
