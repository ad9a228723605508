#include "orbiq/private/orbiqAgent/HandlerWork.h"

#include <algorithm>
#include <new>
#include <utility>

namespace orbiq {

HandlerWork::Given HandlerWork::give(const Item& item) {
  std::list<Item> given;
  try {
    given.push_back(item);
  } catch (const std::bad_alloc&) {
    if (item.added) throw;
  }
  std::list<Item> left;  // ends after the lock
  const Lock lock(_lock);
  if (given.empty()) _owed = std::max(_owed, item.trigger);
  if (item.added) ++_additions;
  _items.splice(_items.end(), given);
  Given result{.needsTaker = !std::exchange(_hasTaker, true)};
  if (_additions > kMostAdditions) {
    const auto oldest =
        std::ranges::find_if(_items, [](const Item& each) { return each.added != nullptr; });
    --_additions;
    result.pushedOut = *oldest;
    left.splice(left.end(), _items, oldest);
  }
  return result;
}

std::optional<HandlerWork::Item> HandlerWork::take() {
  std::list<Item> taken;
  const Lock lock(_lock);
  _hasTaker = !_items.empty() || _owed != Trigger::None;
  if (!_hasTaker) return std::nullopt;
  if (_owed != Trigger::None) return Item{.trigger = std::exchange(_owed, Trigger::None)};
  taken.splice(taken.end(), _items, _items.begin());
  if (taken.front().added) --_additions;
  return std::move(taken.front());
}

void HandlerWork::takerFailed() {
  const Lock lock(_lock);
  _hasTaker = false;
}

}  // namespace orbiq
