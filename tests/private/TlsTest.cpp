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

class Tls : public testing::TestWithParam<Case> {
 protected:
  static std::string granting(const std::string& hitServer) {
    return answer(200, "access=full|host=" + hitServer + "|cmsVI=7");
  }
  std::string failure() { return orbiqAgent::sharedAgent().statistics().lastFailure.description(); }

  const CertificateAuthority trusted;
  const TlsIdentity good = trusted.issue();
  const TlsIdentity identity = GetParam().identity(trusted);
};

TEST_P(Tls, OfTheHitServer) {
  ScriptedServer hits([](const std::string&) { return answer(200); }, &identity);
  const std::string grant = granting(hits.url("/"));
  ScriptedServer authorizations([&](const std::string&) { return grant; }, &good);
  Application application(authorizations.url("/"), [&](HostDescription& host, Platform&) {
    host.caBundle = trusted.bundle();
  });
  const auto request = streamingRequest();
  orbiqAgent::sharedAgent().addRequestToQueue(request);
  if (GetParam().problem == nullptr) {
    ASSERT_TRUE(application.log().waitFor("We have now 0 request(s) to handle"));
    EXPECT_EQ(hits.requests().size(), 1U);
    return;
  }
  ASSERT_TRUE(application.log().waitFor("handling resulted in a timeout or lack of connection"));
  orbiqAgent::sharedAgent().addRequestToQueue(streamingRequest());
  ASSERT_TRUE(application.log().waitFor("We have now 2 request(s) to handle"));
  EXPECT_TRUE(hits.requests().empty());
  EXPECT_EQ(request->numberOfFails(), 1U);
  EXPECT_EQ(request->lastFail(), application.clock().now());
  EXPECT_NE(failure().find(GetParam().problem), std::string::npos) << failure();
  EXPECT_EQ(counts(orbiqAgent::sharedAgent().statistics()), (Counts{2, 0, 0, 0, 0, 0, 0, 0, 2}));
}

TEST_P(Tls, OfTheAuthorizationServer) {
  ScriptedServer hits([](const std::string&) { return answer(200); }, &good);
  const std::string grant = granting(hits.url("/"));
  ScriptedServer authorizations([&](const std::string&) { return grant; }, &identity);
  Application application(authorizations.url("/"), [&](HostDescription& host, Platform&) {
    host.caBundle = trusted.bundle();
  });
  Application::tagger("ABC")->sendHit();
  if (GetParam().problem == nullptr) {
    ASSERT_TRUE(application.log().waitFor("We have now 0 request(s) to handle"));
    EXPECT_EQ(hits.requests().size(), 1U);
    return;
  }
  // The fallback: the serial alone, which cannot be sent to.
  ASSERT_TRUE(application.log().waitFor("handling resulted in a timeout or lack of connection"));
  EXPECT_TRUE(authorizations.requests().empty());
  EXPECT_TRUE(hits.requests().empty());
  EXPECT_EQ(failure(), "ABC: the URL is neither http nor https");
  EXPECT_EQ(application.log().count(GetParam().problem), 1U)
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
}

INSTANTIATE_TEST_SUITE_P(With, Tls, testing::ValuesIn(kCases),
                         [](const auto& made) { return std::string(made.param.name); });

}  // namespace
}  // namespace orbiq::test
