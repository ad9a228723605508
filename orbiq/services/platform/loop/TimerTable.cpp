#include "orbiq/services/platform/loop/TimerTable.h"

#include <algorithm>

namespace orbiq {

TimerTable::Id TimerTable::add(Time now, Time interval, bool repeats, Callback fire) {
  _timers.emplace(Place{now + interval, ++_last}, Timer{now, interval, repeats, std::move(fire)});
  return _last;
}

TimerTable::Callback TimerTable::remove(Id timer) {
  const auto found =
      std::ranges::find(_timers, timer, [](const auto& each) { return each.first.second; });
  if (found == _timers.end()) return nullptr;
  return std::move(_timers.extract(found).mapped().fire);
}

TimerTable::Id TimerTable::beginFiring(Place from, Place to, Callback& fire) {
  const auto first = _timers.lower_bound(from);
  if (first == _timers.end() || first->first > to) return 0;
  auto timer = _timers.extract(first);
  const Id id = timer.key().second;
  fire = timer.mapped().fire;
  timer.key().first = kNever;
  if (timer.mapped().repeats) _timers.insert(std::move(timer));
  return id;
}

void TimerTable::endFiring(Id id, Time now) {
  auto timer = _timers.extract({kNever, id});
  if (!timer) return;
  // Counted from the start, so that the timer does not drift, to the first multiple still to come.
  const auto& [start, interval, repeats, fire] = timer.mapped();
  timer.key().first = start + ((now - start) / interval + 1) * interval;
  _timers.insert(std::move(timer));
}

}  // namespace orbiq
