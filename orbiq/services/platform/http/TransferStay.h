#pragma once

#include <curl/curl.h>

namespace orbiq {

/// Registers the exit handler. It runs before the handlers that were registered earlier, so the
/// transfer library, whose own tear-down it protects, must have been initialised before. False if
/// that failed; then it may be called again.
bool installExitHandler();

/// A thread's stay inside the transfer library. When the process exits, the handler wakes whoever
/// stays there and waits, not for long, until all have left: what libcurl and OpenSSL then tear
/// down is in nobody's use. A thread of the library's then parks: it sleeps for ever, whatever it
/// was about to do. One of the host's goes on, as a destructor may wait for it.
class TransferStay {
 public:
  /// Parks a thread of the library's if the process is exiting. `toWake` is what the handler wakes;
  /// null if the stay is too short to need waking.
  explicit TransferStay(CURLM* toWake);
  /// The same.
  ~TransferStay();
  TransferStay(const TransferStay&) = delete;
  TransferStay& operator=(const TransferStay&) = delete;

  /// False where libcurl must not be called but parking would be wrong: at the exit on a thread of
  /// the host's or the one that runs the exit, and in a forked child.
  bool entered() const { return _entered; }
  /// To be called wherever the stay can pause. True if the process is exiting and the stay, on a
  /// thread of the host's, must end now; one of the library's parks.
  bool mustEnd();

  /// True while any thread stays inside.
  static bool isAnyUnderWay();

  // For the exit handler: what to wake, and the next stay. The list lives in the stays themselves,
  // so it needs no other memory.
  CURLM* const multi;
  mutable TransferStay* next = nullptr;

 private:
  void leave();

  bool _entered = false;
};

}  // namespace orbiq
