// Hits and authorizations over TLS, with a server of each that is trusted, and one that is not.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "tests/support/Application.h"

namespace orbiq::test {
namespace {

class Tls : public testing::Test {
 protected:
  void start(const TlsIdentity& ofAuthorizations, const TlsIdentity& ofHits) {
    hits.emplace([](const std::string&) { return answer(200); }, &ofHits);
    const std::string grant = "access=full|host=" + hits->url("/") + "|cmsVI=7";
    authorizations.emplace([grant](const std::string&) { return answer(200, grant); },
                           &ofAuthorizations);
    application.emplace(authorizations->url("/"), [this](HostDescription& host, Platform&) {
      host.caBundle = authority.bundle();
    });
    request = streamingRequest();
    orbiqAgent::sharedAgent().addRequestToQueue(request);
  }
  /// What is noted of a request that is kept.
  std::string failure() {
    EXPECT_TRUE(application->log().waitFor("handling resulted in a timeout or lack of connection"));
    // The next addition waits for the lock, under which the failure is noted.
    orbiqAgent::sharedAgent().addRequestToQueue(streamingRequest());
    EXPECT_TRUE(application->log().waitFor("We have now 2 request(s) to handle"));
    EXPECT_TRUE(hits->requests().empty());
    return orbiqAgent::sharedAgent().statistics().lastFailure.description();
  }

  const CertificateAuthority authority;
  const TlsIdentity trusted = authority.issue();
  const TlsIdentity expired = authority.issueExpired();
  std::optional<ScriptedServer> hits;
  std::optional<ScriptedServer> authorizations;
  std::optional<Application> application;
  std::shared_ptr<orbiqRequest> request;
};

TEST_F(Tls, BothServersAreTrusted) {
  start(trusted, trusted);
  ASSERT_TRUE(application->log().waitFor("We have now 0 request(s) to handle"));
  EXPECT_EQ(hits->requests().size(), 1U);
}

TEST_F(Tls, AHitIsKeptFromAnUntrustedServer) {
  start(trusted, expired);
  EXPECT_NE(failure().find("certificate has expired"), std::string::npos) << failure();
  EXPECT_EQ(request->numberOfFails(), 1U);
}

TEST_F(Tls, AnUntrustedAuthorizationIsReplacedByTheFallback) {
  start(expired, trusted);
  const std::string told = failure();
  EXPECT_TRUE(told.starts_with("ABC: no answer of the authorization server: ")) << told;
  EXPECT_NE(told.find("certificate has expired"), std::string::npos) << told;
  EXPECT_TRUE(authorizations->requests().empty());
  EXPECT_EQ(application->log().count("(WARNING) : No authorization for serial " + told), 1U);
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
  EXPECT_EQ(open.connectionCount(), 0U);
  EXPECT_EQ(
      application.log().count("(WARNING) : No authorization for serial ABC: the authorization "
                              "server's answer with status 302 lacks access, host or cmsVI: "
                              "the redirect leads from https to http"),
      1U);
}

}  // namespace
}  // namespace orbiq::test
