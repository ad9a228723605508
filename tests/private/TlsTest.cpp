// Hits and authorizations over TLS, with servers that are to be trusted and others.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/Application.h"

namespace orbiq::test {
namespace {

using Counts = std::vector<std::uint64_t>;

struct Case {
  const char* name;
  TlsIdentity (*identity)(const CertificateAuthority& trusted);
  const char* problem;  ///< part of what is told; null: all is well
};

const Case kCases[]{
    {"Valid", [](const CertificateAuthority& trusted) { return trusted.issue(); }, nullptr},
    {"Expired", [](const CertificateAuthority& trusted) { return trusted.issueExpired(); },
     "certificate has expired"},
    {"WrongHost",
     [](const CertificateAuthority& trusted) { return trusted.issue("DNS:elsewhere.example"); },
     "no alternative certificate subject name matches"},
    {"SelfSigned", [](const CertificateAuthority&) { return CertificateAuthority::selfSigned(); },
     "self-signed certificate"},
    {"UnknownAuthority", [](const CertificateAuthority&) { return CertificateAuthority().issue(); },
     "unable to get local issuer certificate"},
    {"Tls10Only",
     [](const CertificateAuthority& trusted) {
       TlsIdentity identity = trusted.issue();
       identity.speaksOnlyTls10 = true;
       return identity;
     },
     "tlsv1 alert protocol version"},
};

/// An application with a server for its authorizations and one for its hits, one of which has the
/// case's identity.
class Tls : public testing::TestWithParam<Case> {
 protected:
  explicit Tls(bool ofHits) : hitsAreAtFault(ofHits) {}

  static orbiqAgent& agent() { return orbiqAgent::sharedAgent(); }
  std::string failure() { return agent().statistics().lastFailure.description(); }
  bool isSent() { return application.log().waitFor("We have now 0 request(s) to handle"); }
  bool isKept() {
    return application.log().waitFor("handling resulted in a timeout or lack of connection");
  }

  const bool hitsAreAtFault;
  const CertificateAuthority trusted;
  const TlsIdentity good = trusted.issue();
  const TlsIdentity tested = GetParam().identity(trusted);
  ScriptedServer hits{[](const std::string&) { return answer(200); },
                      hitsAreAtFault ? &tested : &good};
  ScriptedServer authorizations{[this](const std::string&) {
                                  return answer(200,
                                                "access=full|host=" + hits.url("/") + "|cmsVI=7");
                                },
                                hitsAreAtFault ? &good : &tested};
  Application application{authorizations.url("/"), [this](HostDescription& host, Platform&) {
                            host.caBundle = trusted.bundle();
                          }};
};

class TlsHits : public Tls {
 protected:
  TlsHits() : Tls(true) {}
};
class TlsAuthorizations : public Tls {
 protected:
  TlsAuthorizations() : Tls(false) {}
};

TEST_P(TlsHits, AreSentToATrustedServerAlone) {
  const auto request = streamingRequest();
  agent().addRequestToQueue(request);
  if (GetParam().problem == nullptr) {
    ASSERT_TRUE(isSent());
    EXPECT_EQ(hits.requests().size(), 1U);
    return;
  }
  ASSERT_TRUE(isKept());
  agent().addRequestToQueue(streamingRequest());
  ASSERT_TRUE(application.log().waitFor("We have now 2 request(s) to handle"));
  EXPECT_TRUE(hits.requests().empty());
  EXPECT_EQ(request->numberOfFails(), 1U);
  EXPECT_EQ(request->lastFail(), application.clock().now());
  EXPECT_NE(failure().find(GetParam().problem), std::string::npos) << failure();
  EXPECT_EQ(counts(agent().statistics()), (Counts{2, 0, 0, 0, 0, 0, 0, 0, 2}));
}

TEST_P(TlsAuthorizations, OfAnotherServerAreReplacedByTheFallback) {
  Application::tagger("ABC")->sendHit();
  if (GetParam().problem == nullptr) {
    ASSERT_TRUE(isSent());
    EXPECT_EQ(hits.requests().size(), 1U);
    return;
  }
  // The serial alone, which cannot be sent to.
  ASSERT_TRUE(isKept());
  EXPECT_TRUE(authorizations.requests().empty());
  EXPECT_TRUE(hits.requests().empty());
  Application::tagger("ABC")->sendHit();  // waits for the lock, under which the failure is noted
  ASSERT_TRUE(application.log().waitFor("We have now 2 request(s) to handle"));
  constexpr char kCause[] = "ABC: no answer of the authorization server: ";
  EXPECT_TRUE(failure().starts_with(kCause)) << failure();
  EXPECT_NE(failure().find(GetParam().problem), std::string::npos) << failure();
  EXPECT_EQ(application.log().count("(WARNING) : No authorization for serial " + failure()), 1U)
      << testing::PrintToString(application.log().lines());
}

// The redirect is a response like any other, and its target is not asked.
TEST(TlsRedirect, ToAnUnprotectedServerIsNotFollowed) {
  const CertificateAuthority trusted;
  const TlsIdentity good = trusted.issue();
  ScriptedServer open([](const std::string&) { return answer(200, "access=full|host=x|cmsVI=7"); });
  const std::string redirect = answer(302, "", "Location: " + open.url("/") + "\r\n");
  ScriptedServer secured([&](const std::string&) { return redirect; }, &good);
  Application application(secured.url("/"), [&](HostDescription& host, Platform&) {
    host.caBundle = trusted.bundle();
  });
  Application::tagger("ABC")->sendHit();
  ASSERT_TRUE(application.log().waitFor("handling resulted in a timeout or lack of connection"));
  EXPECT_EQ(secured.requests().size(), 1U);
  EXPECT_EQ(open.connectionCount(), 0U);
  EXPECT_EQ(
      application.log().count("(WARNING) : No authorization for serial ABC: the authorization "
                              "server's answer with status 302 lacks access, host or cmsVI: "
                              "the redirect leads from https to http"),
      1U);
}

std::string nameOf(const testing::TestParamInfo<Case>& made) { return made.param.name; }
INSTANTIATE_TEST_SUITE_P(Server, TlsHits, testing::ValuesIn(kCases), nameOf);
INSTANTIATE_TEST_SUITE_P(Server, TlsAuthorizations, testing::ValuesIn(kCases), nameOf);

}  // namespace
}  // namespace orbiq::test
