#include "orbiq/services/platform/http/TransferStay.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>
#include <utility>

#include "orbiq/services/platform/base/ForkGuard.h"
#include "orbiq/services/platform/base/NeverDestroyed.h"
#include "orbiq/services/platform/threads/Mutex.h"
#include "orbiq/services/platform/threads/ProcessExit.h"
#include "orbiq/services/platform/threads/Thread.h"

namespace orbiq {
namespace {

struct Stays {
  Condition changed;
  /// Those of the threads inside.
  TransferStay* first ORBIQ_GUARDED_BY(changed) = nullptr;
  std::thread::id exitingThread ORBIQ_GUARDED_BY(changed);
};

/// Never destroyed: threads may come by at any moment of the process's end.
Stays& stays() {
  static NeverDestroyed<Stays> all;
  return *all;
}

[[noreturn]] void park() {
  for (;;) pause();
}

void waitUntilAllHaveLeft() {
  const auto deadline = std::chrono::steady_clock::now() + kLongestWaitAtExit;
  Lock lock(stays().changed);
  while (stays().first != nullptr) {
    const auto left = deadline - std::chrono::steady_clock::now();
    if (left <= left.zero()) return;
    stays().changed.waitFor(left);
  }
}

void onProcessExit() {
  // A child that was forked shares its parent's wake-up descriptors and may hold stuck locks.
  if (inForkedChild()) return;
  {
    Lock lock(stays().changed);
    exitHandlerRuns = true;
    stays().exitingThread = std::this_thread::get_id();
    for (const auto* stay = stays().first; stay != nullptr; stay = stay->next) {
      if (stay->multi != nullptr) curl_multi_wakeup(stay->multi);
    }
  }
  // A library thread may hold what the others need in order to park.
  if (!isLibraryThread()) waitUntilAllHaveLeft();
}

}  // namespace

bool installExitHandler() {
  armForkGuard();
  stays();
  return std::atexit(onProcessExit) == 0;
}

TransferStay::TransferStay(CURLM* toWake) : multi(toWake) {
  if (inForkedChild()) return;
  {
    Lock lock(stays().changed);
    if (!isProcessExiting()) {
      next = std::exchange(stays().first, this);
      _entered = true;
      return;
    }
    if (stays().exitingThread == std::this_thread::get_id()) return;
  }
  if (isLibraryThread()) park();
}

TransferStay::~TransferStay() {
  if (!_entered) return;
  leave();
  if (isProcessExiting() && isLibraryThread()) park();
}

bool TransferStay::mustEnd() {
  if (!isProcessExiting()) return false;
  if (isLibraryThread()) {
    leave();
    park();
  }
  return true;
}

void TransferStay::leave() {
  Lock lock(stays().changed);
  TransferStay** place = &stays().first;
  while (*place != this) place = &(*place)->next;
  *place = next;
  stays().changed.broadcast();
}

bool TransferStay::isAnyUnderWay() {
  Lock lock(stays().changed);
  return stays().first != nullptr;
}

}  // namespace orbiq
