#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "orbiq/services/platform/loop/MainLoop.h"
#include "orbiq/services/platform/threads/Thread.h"

namespace orbiq {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

MainLoop& loop() { return MainLoop::mainLoop(); }

bool isReadable(int descriptor, int timeout = 0) {
  pollfd polled{descriptor, POLLIN, 0};
  return poll(&polled, 1, timeout) == 1;
}

TEST(MainLoopTest, AdoptionWaitsForTheItemInProgressAndKeepsTheOrder) {
  constexpr int kItems = 1000;
  constexpr int kAdoptedAt = 100;
  const std::string host = "/proc/self/task/" + std::to_string(gettid()) + "/stat";
  std::vector<int> seen;
  int onLibraryThread = 0;
  std::atomic<bool> begun{false};
  std::atomic<bool> ended{false};
  // Held back until all is posted, so that the adoption comes amid one turn of the loop.
  std::promise<void> gate;
  loop().post([&] { gate.get_future().wait(); });
  for (int i = 1; i <= kItems; ++i) {
    loop().post([&, i] {
      seen.push_back(i);
      if (isLibraryThread()) ++onLibraryThread;
      if (i != kAdoptedAt) return;
      EXPECT_EQ(loop().adopt(), -1);
      begun = true;
      // Until the adopting thread sleeps; the kernel has no event for that.
      for (std::string line; line.find(") S ") == line.npos; std::this_thread::yield()) {
        std::getline(std::ifstream(host), line);
      }
      ended = true;
    });
  }
  gate.set_value();
  // No sleep here, so that the one that the item sees is that of the adoption.
  while (!begun) continue;
  const int descriptor = loop().adopt();
  EXPECT_TRUE(ended);
  while (seen.size() < kItems && isReadable(descriptor, -1)) loop().runPending();
  EXPECT_EQ(onLibraryThread, kAdoptedAt);
  EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
  EXPECT_FALSE(isReadable(descriptor));
  EXPECT_EQ(loop().adopt(), descriptor);
}

TEST(MainLoopTest, TimersOfAnyLengthMayBeRemovedByEachOther) {
  const int descriptor = loop().adopt();
  std::string fired;
  MainLoop::TimerId second = 0;
  loop().addTimer(nanoseconds::min(), false, [&] {
    fired += '1';
    loop().removeTimer(second);
    throw std::runtime_error("ends with its firing");
  });
  second = loop().addTimer(milliseconds{1}, true, [&] { fired += '2'; });
  const auto endless = loop().addTimer(nanoseconds::max(), true, [&] { fired += '3'; });
  const auto due = steady_clock::now() + milliseconds{1};
  while (steady_clock::now() < due) continue;  // both are
  loop().post([&] { fired += 'p'; });          // which may end a timer that is due
  loop().runPending();
  EXPECT_EQ(fired, "p1");
  EXPECT_FALSE(isReadable(descriptor));

  const auto zero = loop().addTimer(nanoseconds{0}, true, [&] { fired += '0'; });
  while (fired.size() < 4 && isReadable(descriptor, -1)) loop().runPending();
  EXPECT_EQ(fired, "p100");
  ASSERT_TRUE(isReadable(descriptor, -1));
  loop().removeTimer(zero);
  EXPECT_FALSE(isReadable(descriptor));
  loop().removeTimer(endless);
}

TEST(MainLoopTest, AWatchThatEndsWithinTheTurnIsNotCalled) {
  const int descriptor = loop().adopt();
  std::string calls;
  const int readable[] = {eventfd(1, EFD_CLOEXEC), eventfd(1, EFD_CLOEXEC)};
  const int empty = eventfd(0, EFD_CLOEXEC);
  for (const int file : readable) {
    // Whichever comes first ends both, and watches successors of the same numbers.
    loop().watch(file, [&] {
      calls += 'e';
      for (const int number : readable) {
        loop().unwatch(number);
        ASSERT_EQ(dup2(empty, number), number);
        loop().watch(number, [&] { calls += '?'; });
      }
      throw std::runtime_error("ends with its call");
    });
  }
  loop().runPending();
  EXPECT_EQ(calls, "e");
  EXPECT_FALSE(isReadable(descriptor));
  // Closed by its owner without a word, and its number used again.
  close(readable[0]);
  ASSERT_EQ(eventfd(1, EFD_CLOEXEC), readable[0]);
  loop().watch(readable[0], [&] { calls += 'r'; });
  for (const int bad : {-1, 1'000'000}) loop().watch(bad, [] {});
  loop().runPending();
  EXPECT_EQ(calls, "er");
}

TEST(MainLoopTest, HostIsNeverStarvedAndRunEndsAfterTheItemThatStopsIt) {
  std::string ran;
  const int descriptor = loop().adopt();
  EXPECT_FALSE(isReadable(descriptor));
  loop().post([&] {
    loop().post([&] { ran += 'b'; });
    ran += 'a';
    throw std::runtime_error("ends with its item");
  });
  for (const char* soFar : {"a", "ab"}) {
    EXPECT_TRUE(isReadable(descriptor));
    loop().runPending();
    EXPECT_EQ(ran, soFar);
  }
  EXPECT_FALSE(isReadable(descriptor));

  loop().stop();
  loop().post([&] {
    ran += 'c';
    loop().stop();
  });
  std::promise<void> idle;
  loop().post([&] {
    ran += 'd';
    idle.set_value();
  });
  for (const char* soFar : {"ab", "abc"}) {
    loop().run();
    EXPECT_EQ(ran, soFar);
    EXPECT_TRUE(isReadable(descriptor));
  }
  const std::jthread stopper([&] {
    idle.get_future().wait();
    loop().stop();
  });
  loop().run();
  EXPECT_EQ(ran, "abcd");
}

}  // namespace
}  // namespace orbiq
