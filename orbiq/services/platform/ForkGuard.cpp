#include "orbiq/services/platform/ForkGuard.h"

#include <pthread.h>

#include <atomic>
#include <new>

#include "orbiq/services/platform/SystemLog.h"

namespace orbiq {
namespace {

std::atomic<bool> isArmed{false};
std::atomic<bool> forkedChild{false};
std::atomic<bool> saidSo{false};
std::atomic<std::uint32_t> forks{0};
static_assert(std::atomic<bool>::is_always_lock_free, "the handler runs where locks may be stuck");

void beginInForkedChild() {
  ++forks;
  if (!isArmed) return;
  forkedChild.store(true, std::memory_order_relaxed);
  saidSo.store(false, std::memory_order_relaxed);
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

bool isForkedAway() {
  if (!inForkedChild()) return false;
  if (!saidSo.exchange(true, std::memory_order_relaxed)) {
    SystemLog::write(LoggingModeError,
                     "(ERROR) : This process was forked from one that uses the library: the "
                     "library does nothing in it");
  }
  return true;
}

}  // namespace orbiq
