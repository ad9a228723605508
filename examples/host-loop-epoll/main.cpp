#include <orbiq/orbiq.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <thread>

/// An epoll application takes the library's main loop into its own: timers and notifications come
/// on its main thread.
///
///     orbiq-host-loop-epoll [SECONDS]
///
/// Ends when a timer has fired, the network has changed and the application has come back to the
/// foreground: with 0 if all of it came on the main thread, with 1 if not, or not in time.
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

}  // namespace

int main(int argc, char** argv) {
  const int patience = (argc > 1 ? std::atoi(argv[1]) : 30) * 1000;
  // The library's loop is one source of the application's. From here on its timers and
  // notifications come in runPending() alone.
  const int loop = epoll_create1(EPOLL_CLOEXEC);
  const int library = orbiq::MainLoop::mainLoop().adopt();
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = library;
  if (epoll_ctl(loop, EPOLL_CTL_ADD, library, &event) != 0) {
    std::cerr << "the loops cannot be set up\n";
    return 1;
  }

  const auto application = std::make_shared<Application>();
  const auto timer = orbiqTimer::orbiqTimerWithInterval_withTarget_selector_repeating(
      0.1, application, &Application::timerFired, false);
  // A thread that is not the main one would tell of the foreground in the same way.
  orbiq::MainLoop::mainLoop().post([] {
    orbiq::NotificationCenter::defaultCenter().postNotificationName(
        orbiq::UIApplicationWillEnterForegroundNotification);
  });

  while (!application->hasAll()) {
    const int ready = epoll_wait(loop, &event, 1, patience);
    if (ready == 0) break;
    if (ready == 1 && event.data.fd == library) orbiq::MainLoop::mainLoop().runPending();
  }
  close(loop);  // the library's descriptor stays open
  return application->end();
}
