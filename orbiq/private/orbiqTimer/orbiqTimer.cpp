#include "orbiq/private/orbiqTimer/orbiqTimer.h"

#include <chrono>
#include <new>
#include <utility>

#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/platform/log/ForkedAway.h"
#include "orbiq/services/platform/threads/Thread.h"

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
                                                      Selector selector, bool repeating) try {
  auto made = std::make_shared<orbiqTimer>(Passkey(), std::move(target), std::move(selector));
  // The schedule owns the timer; the target, which may own it too, is owned by neither.
  const auto timer = orbiq::MainLoop::mainLoop().addTimer(
      nanosecondsOf(interval), repeating, [made] { made->tick(made->timer); }, &made->timer);
  return timer != 0 || orbiq::isForkedAway() ? made : throw std::bad_alloc();
} catch (const std::bad_alloc& error) {
  return orbiqLogger::log_withMode(error.what(), orbiq::LoggingModeError), nullptr;
}

void orbiqTimer::tick(orbiq::MainLoop::TimerId) {
  const std::shared_ptr<void> receiver = target.lock();
  if (receiver) orbiq::runTask([&] { selector(receiver.get(), *this); });
}

void orbiqTimer::invalidate() {
  orbiq::MainLoop& loop = orbiq::MainLoop::mainLoop();
  try {
    if (loop.post([&loop, self = shared_from_this()] { loop.removeTimer(self->timer); })) return;
  } catch (const std::bad_alloc&) {
    // As where the loop has no memory for the step.
  }
  loop.removeTimer(timer);  // out of turn, but it takes no memory
}
