#include "tools/collector/Gate.h"

#include <algorithm>
#include <chrono>

namespace orbiq::collector {
namespace {

using SteadyClock = std::chrono::steady_clock;

/// How often a held request is asked whether its client is still there.
constexpr std::chrono::milliseconds kGateLook{100};

}  // namespace

Behaviour Gate::behaviour() const {
  const Lock lock(_condition);
  return _behaviour;
}

Behaviour Gate::change(const nlohmann::json& changes) {
  const Lock lock(_condition);
  _behaviour = changed(_behaviour, changes);
  _condition.broadcast();
  _changes.announce();
  return _behaviour;
}

void Gate::close() {
  const Lock lock(_condition);
  _closed = true;
  _condition.broadcast();
}

Gate::Passage Gate::pass(Kind kind, const std::function<bool()>& clientHasGone) {
  const Lock lock(_condition);
  Behaviour held;
  held.delay = _behaviour.delay;
  const SteadyClock::time_point due = SteadyClock::now() + _behaviour.delay;
  for (bool isHeld = false;; isHeld = true) {
    const SteadyClock::duration left = due - SteadyClock::now();
    const bool stalls = _behaviour.stalls(kind);
    if (stalls) held.stall = _behaviour.stall;
    const bool isDue = !stalls && left <= SteadyClock::duration::zero();
    if (isDue || _closed || clientHasGone()) {
      if (isHeld) addHeld(-1);
      if (!isDue || _closed) return {false, held};
      Passage passage{true, _behaviour};
      passage.behaviour.delay = held.delay;
      passage.behaviour.stall = held.stall;
      return passage;
    }
    if (!isHeld) addHeld(1);
    _condition.waitFor(stalls ? kGateLook : std::min<SteadyClock::duration>(kGateLook, left));
  }
}

void Gate::addHeld(int number) {
  _held += number;
  _changes.announce();
}

int Gate::held() const {
  const Lock lock(_condition);
  return _held;
}

}  // namespace orbiq::collector
