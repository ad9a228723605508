#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <utility>

namespace orbiq {

/// The timers of a loop and the order in which they are due. It has neither clock nor lock: the
/// caller tells the time, counted from the same moment in each call, and guards the table.
class TimerTable {
 public:
  using Id = std::uint64_t;
  /// Shared by the table and the firing in progress, so that a timer may remove itself. Whoever
  /// lets go of one last does so outside the guard: its end may use the loop again.
  using Callback = std::shared_ptr<const std::function<void()>>;
  using Time = std::chrono::nanoseconds;

  /// A timer that is due one interval from now, and, if it repeats, at the multiples after that.
  /// Intervals below 0.1 ms are taken as that, those beyond thirty years as thirty years. Throws
  /// `std::bad_alloc`, and then there is no timer.
  Id add(Time now, Time interval, bool repeats, Callback fire);
  /// What the timer called, or null for one that has ended.
  Callback remove(Id timer);
  /// When the next timer is due; 0 if none waits.
  Time earliest() const { return _schedule.empty() ? Time{0} : _schedule.begin()->first; }

  /// Takes the timer that is due first, if that is not after `limit`, and what it calls; 0 if there
  /// is none. It is not due again before its `endFiring`.
  Id beginFiring(Time limit, Callback& fire);
  /// After the call of what was taken. Harmless for a timer that has ended meanwhile.
  void endFiring(Id timer, Time now);

 private:
  using Schedule = std::set<std::pair<Time, Id>>;
  struct Timer {
    Time start;
    Time interval;
    Time deadline;
    bool repeats;
    Callback fire;
    /// Its place in the schedule, while its call is in progress: so it needs no memory to go back.
    Schedule::node_type place = {};
  };

  std::map<Id, Timer> _timers;
  /// The timers by deadline, except those whose call is in progress.
  Schedule _schedule;
  Id _last = 0;
};

}  // namespace orbiq
