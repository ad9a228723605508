#include <gtest/gtest.h>
#include <poll.h>

#include <cmath>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "orbiq/private/orbiqTimer/orbiqTimer.h"
#include "orbiq/services/platform/loop/MainLoop.h"

namespace orbiq::test {
namespace {

constexpr double kSoon = 0.001;

/// What a plain listener has in common with those that can be told of a timer.
struct Listener {
  virtual ~Listener() = default;
};

struct Ticking {
  void tick(orbiqTimer& timer) const { ticks.push_back(&timer); }
  int fail(orbiqTimer& timer) {
    tick(timer);
    throw std::runtime_error("the target's own trouble");
  }
  mutable std::vector<const orbiqTimer*> ticks;
};

/// Its base with the operation does not stand first, so a wrongly cast pointer would show.
struct TickingListener final : Listener, Ticking {};

template <class Target, class Selector>
std::shared_ptr<orbiqTimer> timerOf(double interval, const std::shared_ptr<Target>& target,
                                    Selector selector, bool repeating) {
  return orbiqTimer::orbiqTimerWithInterval_withTarget_selector_repeating(interval, target,
                                                                          selector, repeating);
}

class OrbiqTimerTest : public testing::Test {
 protected:
  bool isDue(int timeout = 0) {
    pollfd polled{descriptor, POLLIN, 0};
    return poll(&polled, 1, timeout) == 1;
  }
  void await(const std::function<bool()>& isFulfilled) {
    while (!isFulfilled() && isDue(-1)) MainLoop::mainLoop().runPending();
  }

  const int descriptor = MainLoop::mainLoop().adopt();
  const std::shared_ptr<TickingListener> target = std::make_shared<TickingListener>();
};

TEST_F(OrbiqTimerTest, RepeatsUntilTheInvalidationHasRunOnTheLoop) {
  auto timer = timerOf(kSoon, target, &Ticking::fail, true);
  const orbiqTimer* const argument = timer.get();
  EXPECT_TRUE(target->ticks.empty());
  await([&] { return target->ticks.size() == 3; });
  std::thread([&] {
    timer->invalidate();
    timer->invalidate();
  }).join();
  const std::weak_ptr<orbiqTimer> weak = timer;
  timer = nullptr;
  ASSERT_FALSE(weak.expired());  // nothing ends before the loop runs
  await([&] { return weak.expired(); });
  EXPECT_FALSE(isDue(10));
  EXPECT_EQ(target->ticks, std::vector<const orbiqTimer*>(3, argument));
  EXPECT_EQ(target.use_count(), 1);
}

TEST_F(OrbiqTimerTest, OnlyTargetsThatAreThereAndHaveTheOperationAreCalled) {
  const std::shared_ptr<Listener> hidden = target;
  const auto unable = std::make_shared<Listener>();
  auto leaving = std::make_shared<const Ticking>();
  const auto timers = {timerOf(kSoon, unable, &Ticking::tick, true),
                       timerOf(kSoon, leaving, &Ticking::tick, true),
                       timerOf(kSoon, hidden, &Ticking::tick, true)};
  await([&] { return !leaving->ticks.empty(); });
  leaving = nullptr;
  const std::size_t soFar = target->ticks.size();
  await([&] { return target->ticks.size() > soFar + 1; });
  for (const orbiqTimer* caller : target->ticks) EXPECT_EQ(caller, timers.end()[-1].get());
  for (const auto& timer : timers) {
    EXPECT_EQ(timer.use_count(), 2);  // gone on, whoever was called
    timer->invalidate();
  }
  await([&] { return timers.end()[-1].use_count() == 1; });
}

TEST_F(OrbiqTimerTest, FiresOnceAtItsTimeHoweverSenselessUnlessInvalidatedBefore) {
  for (const double endless : {HUGE_VAL, std::nan(""), 1e300}) {
    timerOf(endless, target, &Ticking::tick, false);
  }
  timerOf(kSoon, target, &Ticking::tick, false)->invalidate();
  MainLoop::mainLoop().runPending();
  EXPECT_FALSE(isDue(10));
  for (const double none : {0.0, -1.0, -HUGE_VAL, 1e-9}) {
    const std::weak_ptr<orbiqTimer> timer = timerOf(none, target, &Ticking::tick, false);
    await([&] { return timer.expired(); });
  }
  EXPECT_EQ(target->ticks.size(), 4U);
}

/// Without a host: a timer that ends itself in its first firing, on another thread than the one
/// that may still be making it. That there is no race is for the thread sanitizer to see.
TEST(OrbiqTimerOnTheLibrarysThreadTest, MayBeInvalidatedByItsFirstFiring) {
  struct Ending {
    void end(orbiqTimer& timer) { timer.invalidate(); }
  };
  const auto target = std::make_shared<Ending>();
  for (int i = 0; i < 200; ++i) {
    const auto timer = timerOf(0, target, &Ending::end, true);
    while (timer.use_count() > 1) std::this_thread::yield();
  }
}

}  // namespace
}  // namespace orbiq::test
