#pragma once

#include <pthread.h>

namespace orbiq {

/// Lets a cancellation of this thread wait for the end of a scope.
class CancellationHeld {
 public:
  CancellationHeld() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &_previous); }
  ~CancellationHeld() { pthread_setcancelstate(_previous, nullptr); }
  CancellationHeld(const CancellationHeld&) = delete;
  CancellationHeld& operator=(const CancellationHeld&) = delete;

 private:
  int _previous = PTHREAD_CANCEL_ENABLE;
};

}  // namespace orbiq
