#include <glib-unix.h>
#include <orbiq/orbiq.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <thread>

/// A GLib application takes the library's main loop into its own: timers and notifications come
/// on its main thread.
///
///     orbiq-host-loop-glib [SECONDS]
///
/// Ends when a timer has fired, the network has changed and the application has come back to the
/// foreground: with 0 if all of it came on the main thread, with 1 if not, or not in time (30 s).
namespace {

constexpr const char* kFiring = "a timer's firing";
constexpr const char* kNetworkChange = "a change of the network";
constexpr const char* kForeground = "the return to the foreground";

/// What the application hears of the library. No locks: all of it comes on the main thread.
class Application {
 public:
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

gboolean runLibrary(gint, GIOCondition, gpointer) {
  orbiq::MainLoop::mainLoop().runPending();
  return G_SOURCE_CONTINUE;
}

gboolean endPatience(gpointer isPatient) {
  *static_cast<bool*>(isPatient) = false;
  return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv) {
  // The library's loop is one source of the application's. From here on its timers and
  // notifications come in runPending() alone.
  const int library = orbiq::MainLoop::mainLoop().adopt();
  if (library < 0) {
    std::cerr << "the library's loop cannot be set up\n";
    return 1;
  }
  g_unix_fd_add(library, G_IO_IN, runLibrary, nullptr);

  const auto application = std::make_shared<Application>();
  const auto timer = orbiqTimer::orbiqTimerWithInterval_withTarget_selector_repeating(
      0.1, application, &Application::timerFired, false);
  // A thread that is not the main one would tell of the foreground in the same way.
  orbiq::MainLoop::mainLoop().post([] {
    orbiq::NotificationCenter::defaultCenter().postNotificationName(
        orbiq::UIApplicationWillEnterForegroundNotification);
  });

  bool isPatient = true;
  g_timeout_add_seconds(argc > 1 ? static_cast<guint>(std::atoi(argv[1])) : 30, endPatience,
                        &isPatient);
  while (isPatient && !application->hasAll()) g_main_context_iteration(nullptr, TRUE);
  return application->end();
}
