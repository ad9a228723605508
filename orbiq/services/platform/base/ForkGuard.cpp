#include "orbiq/services/platform/base/ForkGuard.h"

#include <pthread.h>

#include <atomic>
#include <new>

namespace orbiq {
namespace {

std::atomic<bool> isArmed{false};
std::atomic<bool> forkedChild{false};
std::atomic<std::uint32_t> forks{0};
static_assert(std::atomic<bool>::is_always_lock_free, "the handler runs where locks may be stuck");

void beginInForkedChild() {
  ++forks;
  if (isArmed) forkedChild.store(true, std::memory_order_relaxed);
}

}  // namespace

bool watchForks() try {
  static const bool areWatched = pthread_atfork(nullptr, nullptr, beginInForkedChild) == 0
                                     ? true
                                     : throw std::bad_alloc();  // and the next call tries again
  return areWatched;
} catch (const std::bad_alloc&) {
  return false;
}

std::uint32_t forkCount() noexcept { return forks.load(std::memory_order_relaxed); }

void armForkGuard() {
  watchForks();
  isArmed = true;
}

bool inForkedChild() noexcept { return forkedChild.load(std::memory_order_relaxed); }

}  // namespace orbiq
