#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <utility>

namespace orbiq {

/// The timers of a loop and the order in which they are due. It has neither clock nor lock: the
/// caller tells the time, counted from the same moment in each call, and guards the table.
class TimerTable {
 public:
  using Id = std::uint64_t;
  /// Shared by the table and the firing in progress, so that a timer may remove itself. The
  /// last reference ends outside of the caller's lock: its destructor may use the loop again.
  using Callback = std::shared_ptr<const std::function<void()>>;
  using Time = std::chrono::nanoseconds;
  static constexpr Time kNever = Time::max();

  /// A timer that is due one interval from now, and, if it repeats, at the multiples after that.
  /// Those due at the same time stand in the order of their addition. Throws `std::bad_alloc`, and
  /// then there is no timer.
  Id add(Time now, Time interval, bool repeats, Callback fire);
  /// What the timer called, or null for one that has ended.
  Callback remove(Id timer);
  /// When the next timer is due; `kNever` if none waits.
  Time earliest() const { return _timers.empty() ? kNever : _timers.begin()->first.first; }

  /// The id that was given out last; that timer may have ended.
  Id last() const { return _last; }

  /// A timer's sort key: when it is due, then its id.
  using Place = std::pair<Time, Id>;
  /// Begins the firing of the first timer with `from` <= place <= `to`: sets `fire` to what it
  /// calls and returns its id, or 0 if there is none. A repeating one is not due before its
  /// `endFiring`.
  Id beginFiring(Place from, Place to, Callback& fire);
  /// After the call of what was taken. Harmless for a timer that has ended meanwhile.
  void endFiring(Id id, Time now);

 private:
  struct Timer {
    Time start;
    Time interval;
    bool repeats;
    Callback fire;
  };

  /// A repeating timer whose call is in progress has the time `kNever`; another one has gone.
  std::map<Place, Timer> _timers;
  Id _last = 0;
};

}  // namespace orbiq
