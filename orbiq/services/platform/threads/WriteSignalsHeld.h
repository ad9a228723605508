#pragma once

#include <signal.h>

namespace orbiq {

/// Keeps what a write of this thread's own may raise (SIGPIPE, and SIGXFSZ at a limit of file
/// sizes) from the host, which may have its own pending.
class WriteSignalsHeld {
 public:
  WriteSignalsHeld() {
    sigemptyset(&_held);
    for (const int each : kSignals) sigaddset(&_held, each);
    pthread_sigmask(SIG_BLOCK, &_held, &_maskBefore);
    sigpending(&_pendingBefore);
  }
  ~WriteSignalsHeld() {
    sigset_t pending;
    sigpending(&pending);
    for (const int each : kSignals) {
      if (sigismember(&pending, each) != 1 || sigismember(&_pendingBefore, each) == 1) continue;
      sigset_t one;
      sigemptyset(&one);
      sigaddset(&one, each);
      constexpr timespec kAtOnce{};
      sigtimedwait(&one, nullptr, &kAtOnce);
    }
    pthread_sigmask(SIG_SETMASK, &_maskBefore, nullptr);
  }
  WriteSignalsHeld(const WriteSignalsHeld&) = delete;
  WriteSignalsHeld& operator=(const WriteSignalsHeld&) = delete;

 private:
  static constexpr int kSignals[] = {SIGPIPE, SIGXFSZ};

  sigset_t _held;
  sigset_t _maskBefore;
  sigset_t _pendingBefore;
};

}  // namespace orbiq
