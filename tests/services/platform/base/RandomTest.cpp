#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <regex>
#include <set>
#include <thread>

#include "orbiq/services/platform/base/Random.h"

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

TEST(RandomTest, ThreadsAndForkedChildrenDrawNumbersOfTheirOwn) {
  using Numbers = std::array<std::uint32_t, 4>;
  const auto draw = [] {
    return Numbers{randomUint32(), randomUint32(), randomUint32(), randomUint32()};
  };
  std::set<Numbers> seen{draw()};  // this thread has a store from now on
  std::thread([&] { seen.insert(draw()); }).join();
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t child = fork();
  if (child == 0) {
    const Numbers numbers = draw();
    _exit(write(ends[1], &numbers, sizeof numbers) == sizeof numbers ? 0 : 1);
  }
  Numbers numbers{};
  ASSERT_EQ(read(ends[0], &numbers, sizeof numbers), static_cast<ssize_t>(sizeof numbers));
  waitpid(child, nullptr, 0);
  close(ends[0]);
  close(ends[1]);
  seen.insert(numbers);
  seen.insert(draw());
  EXPECT_EQ(seen.size(), 4U);
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
