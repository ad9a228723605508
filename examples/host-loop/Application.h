#pragma once

#include <orbiq/orbiq.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <thread>

inline constexpr const char* kFiring = "a timer's firing";
inline constexpr const char* kNetworkChange = "a change of the network";
inline constexpr const char* kForeground = "the return to the foreground";

/// What the three applications here have in common: what they hear of the library. No locks: all of
/// it comes on the main thread.
class Application {
 public:
  /// An application that a timer, a change of the network and the foreground are going to reach.
  static std::shared_ptr<Application> start() {
    auto application = std::make_shared<Application>();
    // The main loop keeps the timer until it has fired.
    orbiqTimer::orbiqTimerWithInterval_withTarget_selector_repeating(
        0.1, application, &Application::timerFired, false);
    // A thread that is not the main one would tell of the foreground in the same way.
    orbiq::MainLoop::mainLoop().post([] {
      orbiq::NotificationCenter::defaultCenter().postNotificationName(
          orbiq::UIApplicationWillEnterForegroundNotification);
    });
    return application;
  }

  Application() {
    auto& center = orbiq::NotificationCenter::defaultCenter();
    center.addObserver(this, korbiqReachabilityChangedNotification,
                       [this](const auto&) { received(kNetworkChange); });
    center.addObserver(this, orbiq::UIApplicationWillEnterForegroundNotification,
                       [this](const auto&) { received(kForeground); });
    if (monitor && monitor->startNotifier()) std::cout << "watching the network" << std::endl;
  }
  ~Application() {
    auto& center = orbiq::NotificationCenter::defaultCenter();
    center.removeObserver(this, korbiqReachabilityChangedNotification);
    center.removeObserver(this, orbiq::UIApplicationWillEnterForegroundNotification);
    if (monitor) monitor->stopNotifier();
  }
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  void timerFired(orbiqTimer&) { received(kFiring); }
  bool hasAll() const { return missing.empty(); }
  /// Says what did not come, and gives the exit code.
  int end() const {
    for (const std::string& what : missing) std::cerr << what << " did not come\n";
    return hasAll() ? 0 : 1;
  }

 private:
  void received(const char* what) {
    if (std::this_thread::get_id() != mainThread) {
      std::cerr << what << " came on another thread" << std::endl;
      std::_Exit(1);
    }
    std::cout << what << " came on the main thread" << std::endl;
    missing.erase(what);
  }

  const std::thread::id mainThread = std::this_thread::get_id();
  std::set<std::string> missing{kFiring, kNetworkChange, kForeground};
  const std::shared_ptr<orbiqReachability> monitor =
      orbiqReachability::reachabilityForInternetConnection();
};
