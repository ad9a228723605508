#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <set>
#include <thread>

#include "orbiq/services/platform/base/ForkGuard.h"
#include "orbiq/services/platform/base/Random.h"

namespace orbiq {
namespace {

TEST(RandomTest, ThreadsDrawNumbersOfTheirOwnAndForkedChildrenKeepStill) {
  using Numbers = std::uint64_t;
  const auto draw = [] { return Numbers{randomUint32()} << 32 | randomUint32(); };
  std::set<Numbers> seen{draw()};  // this thread has a store from now on
  std::thread([&] { seen.insert(draw()); }).join();
  if (fork() == 0) _exit(inForkedChild() ? 0 : 1);
  int status = -1;
  wait(&status);
  EXPECT_EQ(status, 0);
  for (int i = 0; i < 200; ++i) seen.insert(draw());  // more than a store has
  EXPECT_EQ(seen.size(), 202U);
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
