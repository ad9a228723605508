#include "orbiq/services/platform/loop/TimerTable.h"

#include <algorithm>
#include <new>
#include <utility>

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
  const auto place = _schedule.emplace(now + interval, id).first;
  try {
    _timers.emplace(id, Timer{now, interval, now + interval, repeats, std::move(fire)});
  } catch (const std::bad_alloc&) {
    _schedule.erase(place);
    throw;
  }
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
  auto place = _schedule.extract(_schedule.begin());
  const Id id = place.value().second;
  const auto timer = _timers.find(id);
  fire = timer->second.fire;
  if (timer->second.repeats) {
    timer->second.place = std::move(place);
  } else {
    _timers.erase(timer);
  }
  return id;
}

void TimerTable::endFiring(Id timer, Time now) {
  const auto found = _timers.find(timer);
  if (found == _timers.end() || found->second.place.empty()) return;
  // Counted from the start, so that the timer does not drift, to the first multiple still to come.
  Timer& it = found->second;
  it.deadline = it.start + ((now - it.start) / it.interval + 1) * it.interval;
  it.place.value() = {it.deadline, timer};
  _schedule.insert(std::move(it.place));
}

}  // namespace orbiq
