// The records: identities, requests, markers. That they come back from a file is for UpgradeTest.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "tests/support/Application.h"

namespace orbiq::test {
namespace {

std::shared_ptr<orbiqAuth> authFor(const String& base) {
  return std::make_shared<orbiqAuth>(nullptr,
                                     orbiqAccess::orbiqAccessWithSerial_withAccessMode_withBaseURL(
                                         "S1", AccessModeRestricted, base),
                                     false);
}

TEST(TaggerIdentity, IsItsSerialItsNumberAndItsKind) {
  const orbiqTaggerID one("ABC", 5, true);
  const orbiqTaggerID same(std::string("ABC"), 5, true);
  EXPECT_TRUE(one.isEqual(&same));
  EXPECT_EQ(one.hash(), same.hash());
  const orbiqTaggerID others[]{
      {"ABD", 5, true}, {"ABC", 6, true}, {"ABC", 5, false}, {{}, 5, true}};
  for (const orbiqTaggerID& other : others) {
    EXPECT_FALSE(one.isEqual(&other));
    EXPECT_NE(one.hash(), other.hash());
  }
  EXPECT_FALSE(others[3].isEqual(&others[3])) << "without a serial";
}

TEST(Request, IsEqualToItselfAndAMarkerToAnyMarker) {
  const auto request = streamingRequest();
  const orbiqClearCache marker;
  EXPECT_TRUE(request->isEqual(request.get()));
  EXPECT_FALSE(request->isEqual(streamingRequest().get()));
  EXPECT_TRUE(marker.isEqual(std::make_unique<orbiqClearCache>().get()));
  EXPECT_FALSE(marker.isEqual(request.get()));
  EXPECT_FALSE(request->isEqual(&marker));
  EXPECT_EQ(marker.hash(), 887503681U);
}

TEST(Request, ACopySharesOnlyTheAccess) {
  const auto request = streamingRequest(SendingModeSerialWithStop);
  request->setLastFail(Date{2.5});
  request->setNumberOfFails(3);
  request->setStatus(RequestStatusFailed);
  request->setShouldRenewSessionAfter(true);
  request->setAuth(authFor("http://b/"));
  const auto copy = request->copy();
  EXPECT_EQ(copy->hash(), request->hash());
  EXPECT_EQ(copy->description(), request->description());
  EXPECT_TRUE(copy->shouldRenewSessionAfter());
  EXPECT_NE(copy->auth(), request->auth());
  const auto access = copy->auth()->currentAccess();
  EXPECT_EQ(access, request->auth()->currentAccess());
  EXPECT_TRUE(access->copy()->canSendRequestFor(RequestTypeAudience));
  EXPECT_FALSE(access->hitSuccessfullySent()->copy()->canSendRequestFor(RequestTypeAudience));
}

TEST(Request, GoesToTheHostOrToItsSerial) {
  for (const auto& [mode, url] : {std::pair{SendingModeHost, "http://b/S1"},
                                  {static_cast<SendingMode>(6), "http://b/S1"},
                                  {SendingModeSerial, "S1"}}) {
    const auto request = streamingRequest(mode);
    EXPECT_FALSE(request->url());
    request->setAuth(authFor("http://b/"));
    EXPECT_EQ(request->url()->text(), url);
  }
}

TEST(Request, AStopHasTheNextRank) {
  for (const auto& [rank, next] : {std::pair{" +41x", "42"},
                                   {"x", "1"},
                                   {"-9", "-8"},
                                   {"99999999999999999999", "-9223372036854775808"},
                                   {"-99999999999999999999", "-9223372036854775807"}}) {
    orbiqRequest stop(std::make_shared<const Parameters>(Parameters{{"cmsRK", rank}}),
                      RequestTypeStreaming, SendingModeHost, "ABC", nullptr);
    stop.transformToStop();
    EXPECT_EQ(*stop.parameters(), (Parameters{{"cmsPS", "12"}, {"cmsRK", next}}));
  }
  const auto marker = std::make_shared<orbiqClearCache>();
  marker->transformToStop();
  EXPECT_EQ(marker->parameters(), nullptr);
}

}  // namespace
}  // namespace orbiq::test
