#include "orbiq/private/orbiqTimer/orbiqTimer.h"

#include <chrono>
#include <utility>

#include "orbiq/services/platform/Thread.h"

namespace {

/// Beyond what the main loop tells apart, and far within what nanoseconds can count.
constexpr double kLongestSeconds = 2e9;

std::chrono::nanoseconds nanosecondsOf(double seconds) {
  // Written so that NaN, of which no comparison holds, counts as the longest.
  if (!(seconds < kLongestSeconds)) return std::chrono::nanoseconds::max();
  if (seconds <= 0) return std::chrono::nanoseconds{0};
  return std::chrono::round<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds));
}

}  // namespace

orbiqTimer::orbiqTimer(Passkey, std::weak_ptr<void> newTarget, Selector newSelector)
    : target(std::move(newTarget)), selector(std::move(newSelector)) {}

std::shared_ptr<orbiqTimer> orbiqTimer::makeScheduled(double interval, std::weak_ptr<void> target,
                                                      Selector selector, bool repeating) {
  auto made = std::make_shared<orbiqTimer>(Passkey(), std::move(target), std::move(selector));
  // The schedule owns the timer; the target, which may own it too, is owned by neither.
  orbiq::MainLoop::mainLoop().addTimer(
      nanosecondsOf(interval), repeating, [made] { made->tick(made->timer); }, &made->timer);
  return made;
}

void orbiqTimer::tick(orbiq::MainLoop::TimerId) {
  const std::shared_ptr<void> receiver = target.lock();
  if (receiver) orbiq::runTask([&] { selector(receiver.get(), *this); });
}

void orbiqTimer::invalidate() {
  orbiq::MainLoop::mainLoop().post([self = shared_from_this()] {
    orbiq::MainLoop::mainLoop().removeTimer(std::exchange(self->timer, 0));
  });
}
