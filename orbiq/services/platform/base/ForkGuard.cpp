#include "orbiq/services/platform/base/ForkGuard.h"

#include <pthread.h>

#include <atomic>

#include "orbiq/services/platform/base/UntilDone.h"

namespace orbiq {
namespace {

std::atomic<bool> forkedChild{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the handler runs where locks may be stuck");

void beginInForkedChild() { forkedChild.store(true, std::memory_order_relaxed); }

}  // namespace

void armForkGuard() {
  untilDone([] { return pthread_atfork(nullptr, nullptr, beginInForkedChild) == 0; });
}

bool inForkedChild() noexcept { return forkedChild.load(std::memory_order_relaxed); }

}  // namespace orbiq
