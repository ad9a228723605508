// A hit and an exchange over TLS, with a server that is not trusted. The client's own tests have
// the other faults.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/Application.h"

namespace orbiq::test {
namespace {

/// Which of the two servers has a certificate that has expired.
class Tls : public testing::TestWithParam<const char*> {};

TEST_P(Tls, NothingIsTakenFromAnUntrustedServerAndTheCauseIsTold) {
  const bool isOfHits = GetParam() == std::string("Hits");
  const CertificateAuthority authority;
  const TlsIdentity trusted = authority.issue();
  const TlsIdentity expired = authority.issueExpired();
  const ScriptedServer hits([](const std::string&) { return answer(200); },
                            isOfHits ? &expired : &trusted);
  const std::string grant = "access=full|host=" + hits.url("/") + "|cmsVI=7";
  const ScriptedServer authorizations([&](const std::string&) { return answer(200, grant); },
                                      isOfHits ? &trusted : &expired);
  const Application application(authorizations.url("/"), [&](HostDescription& host, Platform&) {
    host.caBundle = authority.bundle();
  });
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  agent.addRequestToQueue(streamingRequest());
  EXPECT_TRUE(application.log().waitFor("handling resulted in a timeout or lack of connection"));
  // The next addition waits for the lock, under which the failure is noted.
  agent.addRequestToQueue(streamingRequest());
  EXPECT_TRUE(application.log().waitFor("We have now 2 request(s) to handle"));
  EXPECT_TRUE(hits.requests().empty());
  const std::string told = agent.statistics().lastFailure.description();
  EXPECT_NE(told.find("certificate has expired"), std::string::npos) << told;
  EXPECT_TRUE(
      told.starts_with(isOfHits ? "https://" : "ABC: no answer of the authorization server: "));
}

INSTANTIATE_TEST_SUITE_P(Of, Tls, testing::Values("Hits", "Authorizations"));

}  // namespace
}  // namespace orbiq::test
