#include "orbiq/services/platform/loop/NotificationCenter.h"

#include <cstdint>
#include <list>
#include <new>
#include <utility>

#include "orbiq/services/platform/base/NeverDestroyed.h"
#include "orbiq/services/platform/log/ForkedAway.h"
#include "orbiq/services/platform/log/SystemLog.h"
#include "orbiq/services/platform/threads/Mutex.h"
#include "orbiq/services/platform/threads/Thread.h"

namespace orbiq {
namespace {

struct Observer {
  std::uint64_t number;
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
  /// In the order of their addition, which is that of their numbers.
  Observers observers ORBIQ_GUARDED_BY(mutex);
  std::uint64_t lastNumber ORBIQ_GUARDED_BY(mutex) = 0;

  std::uint64_t newest() {
    const Lock lock(mutex);
    return lastNumber;
  }
  /// The first one of the name behind `number` and not behind `last`; null if there is none.
  std::shared_ptr<const Observer> next(const std::string& name, std::uint64_t number,
                                       std::uint64_t last) {
    const Lock lock(mutex);
    for (const auto& observer : observers) {
      if (observer->number > last) break;
      if (observer->number > number && observer->name == name) return observer;
    }
    return nullptr;
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
  const auto made = std::make_shared<Observer>(Observer{0, observer, name, std::move(call)});
  Observers added{made};
  const Lock lock(_state.mutex);
  made->number = ++_state.lastNumber;
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
  const std::uint64_t last = _state.newest();
  for (auto observer = _state.next(name, 0, last); observer;
       observer = _state.next(name, observer->number, last)) {
    runTask([&] { observer->call(notification); });
  }
} catch (const std::bad_alloc&) {
  SystemLog::write(LoggingModeError, "(ERROR) : There is no memory to post a notification");
}

}  // namespace orbiq
