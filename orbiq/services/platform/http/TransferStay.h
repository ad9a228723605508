#pragma once

#include <curl/curl.h>

namespace orbiq {

/// Registers the exit handler. It runs before the handlers that were registered earlier, so the
/// transfer library, whose own tear-down it protects, must have been initialised before. False if
/// that failed; then it may be called again.
bool installExitHandler();

/// A thread's stay inside the transfer library. When the process exits, the handler wakes whoever
/// stays there and waits, not for long, until all have parked: what libcurl and OpenSSL then tear
/// down is in nobody's use. A parked thread sleeps for ever, whatever it was about to do.
class TransferStay {
 public:
  /// Parks if the process is exiting. `toWake` is what the handler wakes; null if the stay is too
  /// short to need waking.
  explicit TransferStay(CURLM* toWake);
  /// Parks instead of returning if the process is exiting.
  ~TransferStay();
  TransferStay(const TransferStay&) = delete;
  TransferStay& operator=(const TransferStay&) = delete;

  /// False where libcurl must not be called but parking would be wrong: on the thread that runs the
  /// exit, which would never end, and in a forked child.
  bool entered() const { return _entered; }
  /// To be called wherever the stay can pause.
  void parkIfExiting();

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
