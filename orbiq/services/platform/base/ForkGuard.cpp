#include "orbiq/services/platform/base/ForkGuard.h"

#include <pthread.h>

#include <atomic>

#include "orbiq/services/platform/base/UntilDone.h"

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

bool watchForks() {
  return untilDone([] { return pthread_atfork(nullptr, nullptr, beginInForkedChild) == 0; });
}

std::uint32_t forkCount() noexcept { return forks.load(std::memory_order_relaxed); }

void armForkGuard() {
  watchForks();
  isArmed = true;
}

bool inForkedChild() noexcept { return forkedChild.load(std::memory_order_relaxed); }

}  // namespace orbiq
