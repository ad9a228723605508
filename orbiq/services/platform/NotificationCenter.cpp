#include "orbiq/services/platform/NotificationCenter.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "orbiq/services/platform/ForkGuard.h"
#include "orbiq/services/platform/Mutex.h"
#include "orbiq/services/platform/Thread.h"

namespace orbiq {
namespace {

struct Observer {
  const void* token;
  std::string name;
  std::function<void(const Notification&)> call;
};

using Observers = std::vector<std::shared_ptr<const Observer>>;

}  // namespace

constinit const char* const UIApplicationWillEnterForegroundNotification =
    "UIApplicationWillEnterForegroundNotification";

struct NotificationCenter::State {
  Mutex mutex;
  /// In the order of their addition.
  Observers observers ORBIQ_GUARDED_BY(mutex);

  bool holds(const std::shared_ptr<const Observer>& observer) {
    const Lock lock(mutex);
    return std::find(observers.begin(), observers.end(), observer) != observers.end();
  }
};

NotificationCenter::NotificationCenter() : _state(new State) {}

NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter* const center = new NotificationCenter;
  return *center;
}

void NotificationCenter::addObserver(const void* observer, const std::string& name,
                                     std::function<void(const Notification&)> call) {
  if (inForkedChild()) return;
  auto added = std::make_shared<const Observer>(Observer{observer, name, std::move(call)});
  const Lock lock(_state->mutex);
  _state->observers.push_back(std::move(added));
}

void NotificationCenter::removeObserver(const void* observer, const std::string& name) {
  if (inForkedChild()) return;
  // What a call holds may use the centre in its end, so that comes after the lock.
  Observers removed;
  const Lock lock(_state->mutex);
  Observers& observers = _state->observers;
  const auto end = std::stable_partition(observers.begin(), observers.end(),
                                         [&](const std::shared_ptr<const Observer>& other) {
                                           return other->token != observer || other->name != name;
                                         });
  std::move(end, observers.end(), std::back_inserter(removed));
  observers.erase(end, observers.end());
}

void NotificationCenter::postNotificationName(const std::string& name,
                                              std::shared_ptr<Object> object) {
  if (inForkedChild()) return;
  Observers told;
  {
    const Lock lock(_state->mutex);
    std::copy_if(
        _state->observers.begin(), _state->observers.end(), std::back_inserter(told),
        [&](const std::shared_ptr<const Observer>& observer) { return observer->name == name; });
  }
  const Notification notification{name, std::move(object)};
  for (const auto& observer : told) {
    // An earlier call, or another thread, may have removed it meanwhile.
    if (!_state->holds(observer)) continue;
    runTask([&] { observer->call(notification); });
  }
}

}  // namespace orbiq
