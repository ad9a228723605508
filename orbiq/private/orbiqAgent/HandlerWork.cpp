#include "orbiq/private/orbiqAgent/HandlerWork.h"

#include <algorithm>
#include <utility>

namespace orbiq {

HandlerWork::Given HandlerWork::give(Item item) {
  std::list<Item> given;
  given.push_back(std::move(item));
  std::list<Item> left;  // ends after the lock
  const Lock lock(_lock);
  if (given.front().added) ++_additions;
  _items.splice(_items.end(), given);
  Given result{.needsTaker = !std::exchange(_hasTaker, true)};
  if (_additions > kMostAdditions) {
    const auto oldest =
        std::ranges::find_if(_items, [](const Item& each) { return each.added != nullptr; });
    --_additions;
    result.pushedOut = oldest->added;
    left.splice(left.end(), _items, oldest);
  }
  return result;
}

bool HandlerWork::take(Item& item) {
  std::list<Item> taken;
  const Lock lock(_lock);
  _hasTaker = !_items.empty();
  if (!_hasTaker) return false;
  taken.splice(taken.end(), _items, _items.begin());
  if (taken.front().added) --_additions;
  item = std::move(taken.front());
  return true;
}

void HandlerWork::takerFailed() {
  const Lock lock(_lock);
  _hasTaker = false;
}

}  // namespace orbiq
