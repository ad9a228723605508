#include "orbiq/services/platform/TimerTable.h"

#include <algorithm>

namespace orbiq {
namespace {

constexpr TimerTable::Time kShortestInterval = std::chrono::microseconds{100};
/// So far below the clock's range that adding the time since the start of the machine is safe, even
/// where the kernel's seconds have 32 bits.
constexpr TimerTable::Time kLongestInterval = std::chrono::seconds{1'000'000'000};

}  // namespace

TimerTable::Id TimerTable::add(Time now, Time interval, bool repeats, Callback fire) {
  interval = std::clamp(interval, kShortestInterval, kLongestInterval);
  const Id id = ++_last;
  _timers.emplace(id, Timer{now, interval, now + interval, repeats, std::move(fire)});
  _schedule.emplace(now + interval, id);
  return id;
}

TimerTable::Callback TimerTable::remove(Id timer) {
  const auto found = _timers.find(timer);
  if (found == _timers.end()) return nullptr;
  Callback fire = std::move(found->second.fire);
  _schedule.erase({found->second.deadline, timer});
  _timers.erase(found);
  return fire;
}

TimerTable::Id TimerTable::beginFiring(Time limit, Callback& fire) {
  if (_schedule.empty() || _schedule.begin()->first > limit) return 0;
  const Id id = _schedule.begin()->second;
  _schedule.erase(_schedule.begin());
  const auto timer = _timers.find(id);
  fire = timer->second.fire;
  if (!timer->second.repeats) _timers.erase(timer);
  return id;
}

void TimerTable::endFiring(Id timer, Time now) {
  const auto found = _timers.find(timer);
  if (found == _timers.end()) return;
  // Counted from the start, so that the timer does not drift, to the first multiple still to come.
  Timer& it = found->second;
  it.deadline = it.start + ((now - it.start) / it.interval + 1) * it.interval;
  _schedule.emplace(it.deadline, timer);
}

}  // namespace orbiq
