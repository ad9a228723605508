#pragma once

#include <chrono>
#include <cstdint>

#include "orbiq/services/platform/threads/Mutex.h"

namespace orbiq::collector {

/// Wakes the event streams when something that they show has changed, bounds their number, and
/// ends them. Thread-safe.
class Changes {
 public:
  /// Each stream is served up to twenty times a second. One browser has no more than about five: it
  /// opens six connections to a server.
  static constexpr int kStreams = 16;

  void announce();
  /// Waits for an announcement later than the `seen`-th, for the end, or for `duration` to pass;
  /// the number of announcements so far. The first call, with 0, returns at once.
  std::uint64_t wait(std::uint64_t seen, std::chrono::milliseconds duration) const;
  /// Waits for the end, for at most `duration`; true if it has come.
  bool ended(std::chrono::milliseconds duration) const;

  /// Lets one more stream in; false if there are enough, or this is the end.
  bool enter();
  void leave();
  /// Tells the streams to end and waits for them a moment; one whose reader is stuck may stay.
  void close();

 private:
  mutable Condition _condition;
  std::uint64_t _announced ORBIQ_GUARDED_BY(_condition) = 1;
  int _streams ORBIQ_GUARDED_BY(_condition) = 0;
  bool _closed ORBIQ_GUARDED_BY(_condition) = false;
};

}  // namespace orbiq::collector
