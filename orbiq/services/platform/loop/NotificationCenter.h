#pragma once

#include <functional>
#include <memory>
#include <string>

#include "orbiq/services/platform/base/Export.h"
#include "orbiq/services/platform/base/Object.h"

namespace orbiq {

/// Posted by the host, on any thread, when the application comes back to the foreground:
/// `NotificationCenter::defaultCenter().postNotificationName(UIApplicationWillEnterForegroundNotification);`
extern ORBIQ_EXPORT const char* const UIApplicationWillEnterForegroundNotification;

/// What observers are told.
struct Notification {
  /// By which observers ask for it.
  std::string name;
  /// The sender; may be null.
  std::shared_ptr<Object> object;
};

/// Tells observers by name. Thread-safe; observers may be added and removed from within a call.
/// Calls are made under no lock. In a forked child nothing is called.
class ORBIQ_EXPORT NotificationCenter {
 public:
  /// The process's one centre. Any thread.
  static NotificationCenter& defaultCenter();

  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  /// Calls `call` for every notification of that name, on the thread that posts it. `observer` is
  /// only the token for `removeObserver`. An observer that is added twice is called twice. One that
  /// is added while a notification is being posted does not get that notification. False if there
  /// was no memory for it, and in a forked child.
  bool addObserver(const void* observer, const std::string& name,
                   std::function<void(const Notification&)> call);
  /// After this has returned no call begins for that observer and name. One that another thread was
  /// about to make, or has begun, still runs.
  void removeObserver(const void* observer, const std::string& name);
  /// Runs the calls in the order of their addition and returns when all have ended. An
  /// exception that a call throws is caught and dropped. Without memory for the notification
  /// nothing is called, which is logged.
  void postNotificationName(const std::string& name, std::shared_ptr<Object> object = nullptr);

 private:
  struct ORBIQ_HIDDEN State;
  explicit NotificationCenter(State& state);
  ~NotificationCenter() = default;

  State& _state;
};

}  // namespace orbiq
