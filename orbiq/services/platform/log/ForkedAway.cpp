#include "orbiq/services/platform/log/ForkedAway.h"

#include <atomic>
#include <cstdint>

#include "orbiq/services/platform/base/ForkGuard.h"
#include "orbiq/services/platform/log/SystemLog.h"

namespace orbiq {

bool isForkedAway() {
  if (!inForkedChild()) return false;
  // Their number tells a child of a child from its parent.
  static std::atomic<std::uint32_t> saidAt{0};
  if (const std::uint32_t now = forkCount(); saidAt.exchange(now) != now) {
    SystemLog::write(LoggingModeError,
                     "(ERROR) : This process was forked from one that uses the library: the "
                     "library does nothing in it");
  }
  return true;
}

}  // namespace orbiq
