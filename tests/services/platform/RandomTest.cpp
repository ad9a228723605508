#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "orbiq/services/platform/Random.h"

namespace orbiq {
namespace {

TEST(RandomTest, EveryBitTakesBothValues) {
  std::uint32_t everSet = 0;
  std::uint32_t alwaysSet = ~everSet;
  for (int i = 0; i < 256; ++i) {
    const std::uint32_t value = randomUint32();
    everSet |= value;
    alwaysSet &= value;
  }
  EXPECT_EQ(everSet, 0xFFFFFFFFU);
  EXPECT_EQ(alwaysSet, 0U);
}

TEST(RandomTest, UuidsAreDistinctAndOfVersionFour) {
  const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 256; ++i) {
    const std::string uuid = randomUuid();
    EXPECT_TRUE(std::regex_match(uuid, form)) << uuid;
    EXPECT_TRUE(seen.insert(uuid).second) << uuid;
  }
}

}  // namespace
}  // namespace orbiq
