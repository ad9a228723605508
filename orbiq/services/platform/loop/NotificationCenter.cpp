#include "orbiq/services/platform/loop/NotificationCenter.h"

#include <algorithm>
#include <list>
#include <new>
#include <utility>
#include <vector>

#include "orbiq/services/platform/base/NeverDestroyed.h"
#include "orbiq/services/platform/log/ForkedAway.h"
#include "orbiq/services/platform/log/SystemLog.h"
#include "orbiq/services/platform/threads/Mutex.h"
#include "orbiq/services/platform/threads/Thread.h"

namespace orbiq {
namespace {

struct Observer {
  const void* token;
  std::string name;
  std::function<void(const Notification&)> call;
};

using Observers = std::list<std::shared_ptr<const Observer>>;

}  // namespace

constinit const char* const UIApplicationWillEnterForegroundNotification =
    "UIApplicationWillEnterForegroundNotification";

struct NotificationCenter::State {
  Mutex mutex;
  /// In the order of their addition.
  Observers observers ORBIQ_GUARDED_BY(mutex);

  bool has(const Observers::value_type& observer) {
    const Lock lock(mutex);
    return std::ranges::find(observers, observer) != observers.end();
  }
};

NotificationCenter::NotificationCenter(State& state) : _state(state) {}

NotificationCenter& NotificationCenter::defaultCenter() {
  static NeverDestroyed<State> state;
  static NotificationCenter center(*state);
  return center;
}

bool NotificationCenter::addObserver(const void* observer, const std::string& name,
                                     std::function<void(const Notification&)> call) try {
  if (isForkedAway()) return false;
  Observers added{std::make_shared<const Observer>(Observer{observer, name, std::move(call)})};
  const Lock lock(_state.mutex);
  _state.observers.splice(_state.observers.end(), added);
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

void NotificationCenter::removeObserver(const void* observer, const std::string& name) {
  if (isForkedAway()) return;
  // What a call holds may use the centre in its end, so that comes after the lock.
  Observers removed;
  const Lock lock(_state.mutex);
  Observers& observers = _state.observers;
  for (auto next = observers.begin(); next != observers.end();) {
    const auto each = next++;
    if ((*each)->token == observer && (*each)->name == name) {
      removed.splice(removed.end(), observers, each);
    }
  }
}

void NotificationCenter::postNotificationName(const std::string& name,
                                              std::shared_ptr<Object> object) try {
  if (isForkedAway()) return;
  const Notification notification{name, std::move(object)};
  // Those that are added meanwhile are not told, those that are removed meanwhile neither.
  std::vector<std::weak_ptr<const Observer>> told;
  {
    const Lock lock(_state.mutex);
    for (const auto& each : _state.observers) {
      if (each->name == name) told.push_back(each);
    }
  }
  for (const auto& each : told) {
    const auto observer = each.lock();
    if (observer && _state.has(observer)) runTask([&] { observer->call(notification); });
  }
} catch (const std::bad_alloc&) {
  SystemLog::write(LoggingModeError, "(ERROR) : There is no memory to post a notification");
}

}  // namespace orbiq
