#include "orbiq/services/platform/ForkGuard.h"

#include <pthread.h>

#include <atomic>

namespace orbiq {
namespace {

std::atomic<bool> forkedChild{false};
std::atomic<bool> saidSo{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the handler runs where locks may be stuck");

void becomeForkedChild() {
  forkedChild.store(true, std::memory_order_relaxed);
  saidSo.store(false, std::memory_order_relaxed);
}

}  // namespace

void armForkGuard() {
  [[maybe_unused]] static const int error = pthread_atfork(nullptr, nullptr, becomeForkedChild);
}

bool inForkedChild() noexcept { return forkedChild.load(std::memory_order_relaxed); }

bool firstTimeInForkedChild() noexcept {
  return inForkedChild() && !saidSo.exchange(true, std::memory_order_relaxed);
}

}  // namespace orbiq
