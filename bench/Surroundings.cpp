#include "bench/Surroundings.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "orbiq/public/orbiqAudienceTagger/orbiqAudienceTagger.h"
#include "orbiq/services/platform/host/HostApplication.h"
#include "orbiq/services/platform/host/Platform.h"
#include "orbiq/services/platform/loop/NotificationCenter.h"

namespace orbiq::bench {
namespace {

/// Only so that a broken library says so; no measurement comes near.
constexpr int kGiveUpMilliseconds = 60'000;

std::atomic<bool> isReachable{true};

/// Asks and watches the machine, so that both cost what they cost, and answers as it was told.
class SwitchedTarget final : public NetworkReachability {
 public:
  explicit SwitchedTarget(std::shared_ptr<NetworkReachability> real) : _real(std::move(real)) {}

  bool setCallback(NetworkReachabilityCallback callback,
                   const NetworkReachabilityContext& context) override {
    return _real->setCallback(callback, context);
  }
  bool setDispatchQueue(std::shared_ptr<SerialQueue> queue) override {
    return _real->setDispatchQueue(std::move(queue));
  }
  bool getFlags(std::uint32_t& flags) override {
    _real->getFlags(flags);
    flags = 0;
    if (isReachable) flags = kSCNetworkReachabilityFlagsReachable;
    return true;
  }

 private:
  const std::shared_ptr<NetworkReachability> _real;
};

class SwitchedSource final : public NetworkReachabilitySource {
 public:
  std::shared_ptr<NetworkReachability> createWithName(const std::string& name) override {
    return std::make_shared<SwitchedTarget>(_real->createWithName(name));
  }
  std::shared_ptr<NetworkReachability> createWithAddress(const sockaddr* address) override {
    return std::make_shared<SwitchedTarget>(_real->createWithAddress(address));
  }
  std::string failure() override { return _real->failure(); }

 private:
  const std::shared_ptr<NetworkReachabilitySource> _real = makeRouteReachabilitySource();
};

void require(const String& problem) {
  if (!problem.isNull()) throw std::runtime_error(problem.toStdString());
}

}  // namespace

void describeApplication(const std::string& authorizationServer,
                         const std::string& libraryDirectory) {
  require(HostApplication::describe(
      {.bundleIdentifier = "tv.example.player",
       .bundleName = "Player",
       .shortVersion = "4.2",
       .authorizationServer = authorizationServer,
       .libraryDirectory = libraryDirectory,
       .advertisingIdentifier = [] { return "6D92078A-8246-4BA4-AE5B-76104861E7DC"; }}));
  require(Platform::install({.reachabilitySource = std::make_shared<SwitchedSource>()}));
}

void setReachable(bool reachable) { isReachable = reachable; }

SaveCounter::SaveCounter(const std::string& libraryDirectory) : _watch(inotify_init1(IN_CLOEXEC)) {
  const std::string cache = libraryDirectory + "/orbiqCache";
  std::filesystem::create_directories(cache);
  // Both ends of a move, because the kernel merges an event into an equal one right before it.
  if (inotify_add_watch(_watch, cache.c_str(), IN_MOVED_FROM | IN_MOVED_TO) < 0) {
    throw std::runtime_error("cannot watch " + cache);
  }
}

SaveCounter::~SaveCounter() { close(_watch); }

void SaveCounter::waitFor(std::size_t saves) {
  while (_saves < saves) {
    pollfd awaited{_watch, POLLIN, 0};
    if (poll(&awaited, 1, kGiveUpMilliseconds) <= 0) throw std::runtime_error("saves do not come");
    alignas(inotify_event) char events[64 * 1024];
    const ssize_t size = read(_watch, events, sizeof events);
    if (size <= 0) throw std::runtime_error("cannot watch the requests file");
    for (ssize_t at = 0; at < size;) {
      const auto* const event = reinterpret_cast<const inotify_event*>(events + at);
      if ((event->mask & IN_Q_OVERFLOW) != 0) throw std::runtime_error("saves went by unseen");
      const bool isArrival = (event->mask & IN_MOVED_TO) != 0;
      if (isArrival && std::string_view(event->name) == "requests.ser") ++_saves;
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
  if (_saves != saves) throw std::runtime_error("more saves than there should be");
}

StalledApplication::StalledApplication(const std::string& directory, std::size_t depth)
    : _server(
          std::vector<test::Script>{{test::steps::readRequest(), test::steps::untilPeerCloses()}}) {
  describeApplication(_server.url("/auth/"), directory);
  setReachable(false);
  SaveCounter saves(directory);
  const auto tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial("241041208600");
  for (std::size_t hit = 0; hit < depth; ++hit) tagger->sendHit();
  saves.waitFor(depth);
  setReachable(true);
  NotificationCenter::defaultCenter().postNotificationName(
      UIApplicationWillEnterForegroundNotification);
  if (!_server.waitForRequests(1)) throw std::runtime_error("nobody asks for an authorization");
}

}  // namespace orbiq::bench
