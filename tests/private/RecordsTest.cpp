// What equals what among the records. That they come back from a file is for UpgradeTest.
#include <gtest/gtest.h>

#include <string>

#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "tests/support/Application.h"

namespace orbiq::test {
namespace {

TEST(TaggerIdentity, IsItsSerialItsNumberAndItsKind) {
  const orbiqTaggerID one("ABC", 5, true);
  const orbiqTaggerID same(std::string("ABC"), 5, true);
  EXPECT_TRUE(one.isEqual(&same));
  EXPECT_EQ(one.hash(), same.hash());
  const orbiqTaggerID others[]{
      {"ABD", 5, true}, {"ABC", 6, true}, {"ABC", 5, false}, {{}, 5, true}};
  for (const orbiqTaggerID& other : others) EXPECT_FALSE(one.isEqual(&other));
  EXPECT_FALSE(others[3].isEqual(&others[3])) << "without a serial";
}

TEST(Request, IsEqualToItselfAndAMarkerToAnyMarker) {
  const auto request = streamingRequest();
  const orbiqClearCache marker;
  EXPECT_FALSE(request->isEqual(request->copy().get()));
  EXPECT_TRUE(marker.isEqual(std::make_unique<orbiqClearCache>().get()));
  EXPECT_FALSE(marker.isEqual(request.get()));
  EXPECT_FALSE(request->isEqual(&marker));
}

}  // namespace
}  // namespace orbiq::test
