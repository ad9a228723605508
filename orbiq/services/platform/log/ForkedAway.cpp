#include "orbiq/services/platform/log/ForkedAway.h"

#include <unistd.h>

#include <atomic>

#include "orbiq/services/platform/base/ForkGuard.h"
#include "orbiq/services/platform/log/SystemLog.h"

namespace orbiq {

bool isForkedAway() {
  if (!inForkedChild()) return false;
  static std::atomic<pid_t> saidBy{0};  // a child of a child has another number
  if (const pid_t own = getpid(); saidBy.exchange(own) != own) {
    SystemLog::write(LoggingModeError,
                     "(ERROR) : This process was forked from one that uses the library: the "
                     "library does nothing in it");
  }
  return true;
}

}  // namespace orbiq
