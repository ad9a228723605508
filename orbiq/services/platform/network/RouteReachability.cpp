#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "orbiq/services/platform/base/ForkGuard.h"
#include "orbiq/services/platform/loop/MainLoop.h"
#include "orbiq/services/platform/loop/SerialQueue.h"
#include "orbiq/services/platform/network/IpAddress.h"
#include "orbiq/services/platform/network/NetworkReachability.h"
#include "orbiq/services/platform/network/RouteLookup.h"
#include "orbiq/services/platform/threads/Mutex.h"
#include "orbiq/services/platform/threads/Thread.h"

namespace orbiq {
namespace {

using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;

constexpr std::uint32_t kReachable = kSCNetworkReachabilityFlagsReachable;
/// In place of flags, none of which have these values: those of a name that was never resolved, and
/// those of which different ones were told.
constexpr std::uint32_t kUnknown = 0xFFFFFFFF;
constexpr std::uint32_t kSeveral = 0xFFFFFFFE;
/// While reports keep coming they are looked at at most this often.
constexpr std::chrono::milliseconds kLookInterval{100};
/// After the kernel gave no answer, or memory ran out.
constexpr std::chrono::seconds kLookAgainInterval{1};
/// A name is looked up at most this often. The pause after a failure grows from one to the other.
constexpr std::chrono::seconds kResolveInterval{1};
constexpr std::chrono::seconds kLongestPause{300};

std::uint32_t flagsOfRoute(const IpAddress& address, const Route& route) {
  const bool isOnLink = route.kind == Route::Kind::kOnLink;
  const bool isLocalNetwork = address == IpAddress{AF_INET, {169, 254}};
  if (route.kind == Route::Kind::kNone || (isLocalNetwork && !isOnLink)) return 0;
  std::uint32_t flags = kReachable;
  if (isOnLink) flags |= kSCNetworkReachabilityFlagsIsDirect;
  if (route.kind == Route::Kind::kLocal) flags |= kSCNetworkReachabilityFlagsIsLocalAddress;
  if (route.isWWAN) flags |= kSCNetworkReachabilityFlagsIsWWAN;
  return flags;
}

class RouteTarget;

/// What the targets share: the lock, the sockets and the steps of the main loop. The lock may be
/// held while one of the main loop's, a serial queue's or a thread start's is taken, never while a
/// callback runs.
///
/// A read asks the kernel. The main loop alone takes in the kernel's reports; then it looks at each
/// target that has a callback and sends what is due to its queue.
class RouteSource : public NetworkReachabilitySource,
                    public std::enable_shared_from_this<RouteSource> {
 public:
  /// Where reachability is assumed, no socket is ever opened.
  explicit RouteSource(bool isAssumed)
      : _sockets(isAssumed ? Sockets::kGivenUp : Sockets::kClosed) {
    armForkGuard();
  }
  ~RouteSource() override {
    setWatching(false);
    setTimer(Time::max());
  }

  std::shared_ptr<NetworkReachability> createWithName(const std::string& name) override;
  std::shared_ptr<NetworkReachability> createWithAddress(const sockaddr* address) override;
  std::string failure() override {
    if (inForkedChild()) return {};
    const Lock lock(mutex);
    if (isOpen() || _error == 0) return {};
    return "the netlink sockets cannot be opened: " + std::generic_category().message(_error);
  }

  /// Opens the sockets where that has not been done, or failed for a reason that may pass.
  bool isOpen() ORBIQ_REQUIRES(mutex) {
    if (_sockets != Sockets::kClosed) return _sockets == Sockets::kOpen;
    int error = lookup.open();
    if (error == 0) error = _reports.open();
    if (mayPass(error)) return false;
    _error = error;
    _sockets = error == 0 ? Sockets::kOpen : Sockets::kGivenUp;
    requestLook();  // somebody may have registered before
    return error == 0;
  }
  /// Over which the way to the internet leads, as far as is known.
  int internetLink() ORBIQ_REQUIRES(mutex) {
    if (const auto way = lookup.lookUp(IpAddress())) _internetLink = way->link;
    return _internetLink;
  }
  /// Has the main loop look. A look that could not be posted is made up for at the next call, even
  /// if that needs none.
  void requestLook(bool isNeeded = true) noexcept ORBIQ_REQUIRES(mutex) {
    if (_sockets != Sockets::kOpen || _look == Look::kPosted) return;
    if (isNeeded) _look = Look::kWanted;
    if (_look == Look::kNone) return;
    try {
      if (MainLoop::mainLoop().post(lookIfAlive())) _look = Look::kPosted;
    } catch (const std::exception&) {  // out of memory
    }
  }

  Mutex mutex;
  /// Those that have a callback.
  std::set<std::weak_ptr<RouteTarget>, std::owner_less<>> registered ORBIQ_GUARDED_BY(mutex);
  RouteLookup lookup ORBIQ_GUARDED_BY(mutex);

 private:
  enum class Sockets { kClosed, kOpen, kGivenUp };
  enum class Look { kNone, kWanted, kPosted };

  std::function<void()> lookIfAlive() {
    return [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->look();
    };
  }
  void look() ORBIQ_EXCLUDES(mutex);
  void setWatching(bool isWatching) {
    if (isWatching == _isWatching) return;
    const int descriptor = _reports.descriptor().number();
    if (!isWatching) MainLoop::mainLoop().unwatch(descriptor);
    if (isWatching && !MainLoop::mainLoop().watch(descriptor, lookIfAlive()))
      throw std::bad_alloc();
    _isWatching = isWatching;
  }
  void setTimer(Time time) {
    if (_timer != 0) MainLoop::mainLoop().removeTimer(std::exchange(_timer, 0));
    if (time == Time::max()) return;
    _timer = MainLoop::mainLoop().addTimer(time - Clock::now(), false, lookIfAlive());
  }

  Sockets _sockets ORBIQ_GUARDED_BY(mutex);
  /// Why they were given up.
  int _error ORBIQ_GUARDED_BY(mutex) = 0;
  int _internetLink ORBIQ_GUARDED_BY(mutex) = 0;
  Look _look ORBIQ_GUARDED_BY(mutex) = Look::kNone;

  // The main loop's own, once the sockets are open.
  RouteReports _reports;
  bool _isWatching = false;
  Time _mayLookAt = Time::min();
  MainLoop::TimerId _timer = 0;
};

/// A target with a name is resolved first; without one it has its address. All that changes is
/// guarded by the source's lock.
class RouteTarget : public NetworkReachability, public std::enable_shared_from_this<RouteTarget> {
 public:
  RouteTarget(std::shared_ptr<RouteSource> source, std::string name,
              std::vector<IpAddress> addresses)
      : _source(std::move(source)), _name(std::move(name)), _addresses(std::move(addresses)) {}
  ~RouteTarget() override {
    if (inForkedChild()) return;
    const Lock lock(_source->mutex);
    _source->registered.erase(weak_from_this());
  }

  bool setCallback(NetworkReachabilityCallback callback,
                   const NetworkReachabilityContext& context) override try {
    if (inForkedChild()) return false;
    const Lock lock(_source->mutex);
    if (callback) {
      _source->registered.insert(weak_from_this());
      if (!_callback) _baseline = currentFlags();
      _source->requestLook();
    } else {
      _source->registered.erase(weak_from_this());
    }
    beginRegistration();
    _callback = callback;
    _info = context.info;
    return true;
  } catch (const std::exception&) {  // out of memory
    return false;
  }

  bool setDispatchQueue(std::shared_ptr<SerialQueue> queue) override {
    if (inForkedChild()) return false;
    const Lock lock(_source->mutex);
    beginRegistration();
    _queue.swap(queue);  // so that the old one ends after the lock
    if (_callback && _queue) _source->requestLook();
    return true;
  }

  bool getFlags(std::uint32_t& flags) override {
    if (inForkedChild()) return false;
    const Lock lock(_source->mutex);
    if (_addresses.empty()) _resolveAt = std::min(_resolveAt, _mayResolveAt);
    resolveIfDue();
    const std::uint32_t now = currentFlags();
    if (_callback && now != _told.value_or(_baseline)) _told = kSeveral;
    if (_told != kSeveral) _told = now;
    _source->requestLook(isDue(now));
    if (now == kUnknown) return false;
    flags = now;
    return true;
  }

  /// Resolves the name and sends the flags, if that is due. Returns when it is to look again.
  Time look() {
    const Lock lock(_source->mutex);
    resolveIfDue();
    Time next = _name.empty() || _isResolving ? Time::max() : _resolveAt;
    const std::uint32_t flags = currentFlags(&next);
    if (isDue(flags)) send(flags);
    if (_underWay.empty()) return next;
    _queue->resume();  // it may have got no thread
    return std::min(next, Clock::now() + kLookAgainInterval);
  }

 private:
  /// Brings `next` forward to when they may be others without a report.
  std::uint32_t currentFlags(Time* next = nullptr) ORBIQ_REQUIRES(_source->mutex) {
    if (!_source->isOpen()) return kReachable;
    if (_addresses.empty()) return kUnknown;
    std::optional<std::chrono::milliseconds> lifetime;
    std::uint32_t flags = 0;
    for (const IpAddress& address : _addresses) {
      const auto route = _source->lookup.lookUp(address);
      lifetime = route ? route->lifetime : kLookAgainInterval;
      flags = route ? flagsOfRoute(address, *route) : _flags;
      if (!route || flags != 0) break;
    }
    if (next && lifetime) *next = std::min(*next, Clock::now() + *lifetime);
    return _flags = flags;
  }

  void resolveIfDue() ORBIQ_REQUIRES(_source->mutex) {
    if (_name.empty() || _isResolving || !_source->isOpen()) return;
    const int link = _source->internetLink();
    if (std::exchange(_internetLink, link) != link) {
      _resolveAt = std::min(_resolveAt, _mayResolveAt);
      _pause = kResolveInterval;
    }
    const Time now = Clock::now();
    if (now < _resolveAt) return;
    _mayResolveAt = now + kResolveInterval;
    _resolveAt = Time::max();
    _isResolving = startResolving();
    if (!_isResolving) takeAddresses({});
  }

  bool startResolving() noexcept ORBIQ_REQUIRES(_source->mutex) try {
    const auto run = [weak = weak_from_this(), name = _name] {
      std::vector<IpAddress> addresses;
      runTask([&] { addresses = resolve(name); });
      const auto self = weak.lock();
      if (!self) return;
      const Lock lock(self->_source->mutex);
      self->takeAddresses(std::move(addresses));
    };
    return startThread("orbiqResolver", run) == 0;
  } catch (const std::exception&) {  // out of memory
    return false;
  }

  void takeAddresses(std::vector<IpAddress> addresses) ORBIQ_REQUIRES(_source->mutex) {
    _isResolving = false;
    if (addresses.empty()) {
      // The old addresses stand: without a network no name is found.
      _resolveAt = Clock::now() + _pause;
      _pause = std::min(2 * _pause, kLongestPause);
    } else {
      _addresses = std::move(addresses);
      _pause = kResolveInterval;
    }
    if (_callback) _source->requestLook();
  }

  void beginRegistration() ORBIQ_REQUIRES(_source->mutex) {
    ++_registration;
    _underWay.clear();
  }
  bool isDue(std::uint32_t flags) const ORBIQ_REQUIRES(_source->mutex) {
    if (!_callback || !_queue || flags == kUnknown) return false;
    return flags != (_underWay.empty() ? _told.value_or(_baseline) : _underWay.back());
  }
  void send(std::uint32_t flags) ORBIQ_REQUIRES(_source->mutex) {
    _underWay.reserve(_underWay.size() + 1);
    _queue->async([weak = weak_from_this(), registration = _registration] {
      if (const auto self = weak.lock()) self->deliver(registration);
    });
    _underWay.push_back(flags);
  }
  void deliver(std::uint64_t registration) ORBIQ_EXCLUDES(_source->mutex) {
    std::shared_ptr<void> info;
    NetworkReachabilityCallback callback = nullptr;
    std::uint32_t flags = 0;
    {
      const Lock lock(_source->mutex);
      if (registration != _registration) return;
      _told = flags = _underWay.front();
      _underWay.erase(_underWay.begin());
      info = _info.lock();
      callback = _callback;
    }
    if (info) callback(*this, flags, info.get());
  }

  const std::shared_ptr<RouteSource> _source;

  const std::string _name;
  std::vector<IpAddress> _addresses ORBIQ_GUARDED_BY(_source->mutex);
  bool _isResolving ORBIQ_GUARDED_BY(_source->mutex) = false;
  /// When the name is to be looked up, which is never before `_mayResolveAt`.
  Time _resolveAt ORBIQ_GUARDED_BY(_source->mutex) = Time::min();
  Time _mayResolveAt ORBIQ_GUARDED_BY(_source->mutex) = Time::min();
  std::chrono::seconds _pause ORBIQ_GUARDED_BY(_source->mutex) = kResolveInterval;
  /// The source's when the name was looked up last.
  int _internetLink ORBIQ_GUARDED_BY(_source->mutex) = 0;

  NetworkReachabilityCallback _callback ORBIQ_GUARDED_BY(_source->mutex) = nullptr;
  std::weak_ptr<void> _info ORBIQ_GUARDED_BY(_source->mutex);
  std::shared_ptr<SerialQueue> _queue ORBIQ_GUARDED_BY(_source->mutex);
  /// Counts changes of callback or queue; a delivery made for an earlier one is dropped.
  std::uint64_t _registration ORBIQ_GUARDED_BY(_source->mutex) = 0;

  /// As the kernel last answered. Until it has, as where it cannot be asked.
  std::uint32_t _flags ORBIQ_GUARDED_BY(_source->mutex) = kReachable;
  /// The flags at the registration.
  std::uint32_t _baseline ORBIQ_GUARDED_BY(_source->mutex) = 0;
  /// What readers and the callback were told last. A reader that was told something else than the
  /// callback makes it `kSeveral`, so that another delivery follows.
  std::optional<std::uint32_t> _told ORBIQ_GUARDED_BY(_source->mutex);
  /// The flags that wait on the queue for their delivery.
  std::vector<std::uint32_t> _underWay ORBIQ_GUARDED_BY(_source->mutex);
};

std::shared_ptr<NetworkReachability> RouteSource::createWithName(const std::string& name) try {
  if (inForkedChild() || name.empty()) return nullptr;
  auto target = std::make_shared<RouteTarget>(shared_from_this(), name, std::vector<IpAddress>());
  target->look();  // begins to resolve the name
  return target;
} catch (const std::exception&) {  // out of memory
  return nullptr;
}

std::shared_ptr<NetworkReachability> RouteSource::createWithAddress(const sockaddr* address) try {
  const auto parsed = IpAddress::fromSocketAddress(address);
  if (inForkedChild() || !parsed) return nullptr;
  return std::make_shared<RouteTarget>(shared_from_this(), "", std::vector{*parsed});
} catch (const std::exception&) {  // out of memory
  return nullptr;
}

void RouteSource::look() try {
  const Time now = Clock::now();
  std::vector<std::shared_ptr<RouteTarget>> targets;
  {
    const Lock lock(mutex);
    _look = Look::kNone;
    targets.reserve(registered.size());  // no target may end under the lock
    for (const auto& target : registered) targets.push_back(target.lock());
  }
  if (now < _mayLookAt) {
    setTimer(_mayLookAt);
    if (_timer != 0) setWatching(false);  // waiting reports would bring the loop back here at once
    return;
  }
  _mayLookAt = now + kLookInterval;
  Time next = Time::max();
  setWatching(!targets.empty());
  if (_isWatching && !_reports.takeIn()) next = now + kLookAgainInterval;
  for (const auto& target : targets) {
    if (target) next = std::min(next, target->look());
  }
  setTimer(next);
} catch (const std::exception&) {  // out of memory
  const Lock lock(mutex);
  _look = Look::kWanted;
  setTimer(Clock::now() + kLookAgainInterval);
}

}  // namespace

std::shared_ptr<NetworkReachabilitySource> makeRouteReachabilitySource() {
  return std::make_shared<RouteSource>(false);
}

std::shared_ptr<NetworkReachabilitySource> makeAssumedReachabilitySource() {
  return std::make_shared<RouteSource>(true);
}

}  // namespace orbiq
