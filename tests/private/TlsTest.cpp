// A hit and an exchange over TLS, with a server that is not trusted. The client's own tests have
// the other faults.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/Application.h"

namespace orbiq::test {
namespace {

class Tls : public testing::Test {
 protected:
  /// What is noted of a request that is kept.
  std::string failure(const TlsIdentity& ofAuthorizations, const TlsIdentity& ofHits) const {
    const ScriptedServer hits([](const std::string&) { return answer(200); }, &ofHits);
    const std::string grant = "access=full|host=" + hits.url("/") + "|cmsVI=7";
    const ScriptedServer authorizations([&](const std::string&) { return answer(200, grant); },
                                        &ofAuthorizations);
    const Application application(
        authorizations.url("/"),
        [this](HostDescription& host, Platform&) { host.caBundle = authority.bundle(); });
    orbiqAgent& agent = orbiqAgent::sharedAgent();
    agent.addRequestToQueue(streamingRequest());
    EXPECT_TRUE(application.log().waitFor("handling resulted in a timeout or lack of connection"));
    // The next addition waits for the lock, under which the failure is noted.
    agent.addRequestToQueue(streamingRequest());
    EXPECT_TRUE(application.log().waitFor("We have now 2 request(s) to handle"));
    EXPECT_TRUE(hits.requests().empty());
    const std::string told = agent.statistics().lastFailure.description();
    EXPECT_NE(told.find("certificate has expired"), std::string::npos) << told;
    return told;
  }

  const CertificateAuthority authority;
  const TlsIdentity trusted = authority.issue();
  const TlsIdentity expired = authority.issueExpired();
};

TEST_F(Tls, AHitIsKeptFromAnUntrustedServer) {
  EXPECT_TRUE(failure(trusted, expired).starts_with("https://"));
}

TEST_F(Tls, AnUntrustedAuthorizationIsReplacedByTheFallback) {
  EXPECT_TRUE(
      failure(expired, trusted).starts_with("ABC: no answer of the authorization server: "));
}

}  // namespace
}  // namespace orbiq::test
