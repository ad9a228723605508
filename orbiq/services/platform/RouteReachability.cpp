#include "orbiq/services/platform/RouteReachability.h"

#include <netdb.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <new>
#include <system_error>
#include <utility>

#include "orbiq/services/platform/ForkGuard.h"
#include "orbiq/services/platform/Thread.h"

namespace orbiq {
namespace {

/// The flags of a name that was never resolved, or where the kernel gave no answer. No real flags
/// have this value.
constexpr std::uint32_t kUnknownFlags = 0xFFFFFFFF;
/// While reports keep coming they are looked at at most this often.
constexpr std::chrono::milliseconds kLookInterval{100};
/// After the kernel gave no answer, or memory ran out.
constexpr std::chrono::seconds kLookAgainInterval{1};
/// A name is looked up at most this often. The pause after a failure grows from one to the other.
constexpr std::chrono::seconds kResolveInterval{1};
constexpr std::chrono::seconds kLongestPause{300};

bool maySoonBeOpened(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
}

bool isLocalNetwork(const IpAddress& address) {
  return address.family == AF_INET && address.bytes[0] == 169 && address.bytes[1] == 254 &&
         address.bytes[2] == 0 && address.bytes[3] == 0;
}

std::uint32_t flagsOfRoute(const std::optional<Route>& route) {
  if (!route) return 0;
  std::uint32_t flags = kSCNetworkReachabilityFlagsReachable;
  if (route->kind == Route::Kind::kOnLink) flags |= kSCNetworkReachabilityFlagsIsDirect;
  if (route->kind == Route::Kind::kLocal) flags |= kSCNetworkReachabilityFlagsIsLocalAddress;
  if (route->isWWAN) flags |= kSCNetworkReachabilityFlagsIsWWAN;
  return flags;
}

/// The addresses in the resolver's order of preference; none if it found none.
std::vector<IpAddress> addressesOf(const std::string& name) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* results = nullptr;
  if (getaddrinfo(name.c_str(), nullptr, &hints, &results) != 0) return {};
  std::vector<IpAddress> addresses;
  for (const addrinfo* result = results; result; result = result->ai_next) {
    if (const auto address = IpAddress::fromSocketAddress(result->ai_addr)) {
      addresses.push_back(*address);
    }
  }
  freeaddrinfo(results);
  return addresses;
}

class RouteTarget : public NetworkReachability {
 public:
  RouteTarget(std::shared_ptr<RouteMonitor> monitor, RouteMonitor::TargetId id)
      : _monitor(std::move(monitor)), _id(id) {}
  ~RouteTarget() override { _monitor->removeTarget(_id); }

  bool setCallback(NetworkReachabilityCallback callback,
                   const NetworkReachabilityContext& context) override {
    return _monitor->setCallback(_id, callback, context);
  }
  bool setDispatchQueue(std::shared_ptr<SerialQueue> queue) override {
    return _monitor->setDispatchQueue(_id, std::move(queue));
  }
  bool getFlags(std::uint32_t& flags) override { return _monitor->getFlags(_id, flags); }

 private:
  const std::shared_ptr<RouteMonitor> _monitor;
  const RouteMonitor::TargetId _id;
};

class RouteReachabilitySource : public NetworkReachabilitySource {
 public:
  explicit RouteReachabilitySource(bool isAssumed)
      : _monitor(std::make_shared<RouteMonitor>(isAssumed)) {}

  std::shared_ptr<NetworkReachability> createWithName(const std::string& name) override {
    return name.empty() ? nullptr : _monitor->addTarget(name, {});
  }
  std::shared_ptr<NetworkReachability> createWithAddress(const sockaddr* address) override {
    const auto parsed = IpAddress::fromSocketAddress(address);
    return parsed ? _monitor->addTarget({}, {*parsed}) : nullptr;
  }
  std::string failure() const override { return _monitor->failure(); }

 private:
  const std::shared_ptr<RouteMonitor> _monitor;
};

}  // namespace

std::shared_ptr<NetworkReachabilitySource> makeRouteReachabilitySource() {
  return std::make_shared<RouteReachabilitySource>(false);
}

std::shared_ptr<NetworkReachabilitySource> makeAssumedReachabilitySource() {
  return std::make_shared<RouteReachabilitySource>(true);
}

RouteMonitor::RouteMonitor(bool isAssumed)
    : _sockets(isAssumed ? Sockets::kGivenUp : Sockets::kClosed) {
  armForkGuard();
}

RouteMonitor::~RouteMonitor() {
  setWatching(false);
  setTimer(Time::max());
}

bool RouteMonitor::isOpen() {
  if (_sockets != Sockets::kClosed) return _sockets == Sockets::kOpen;
  _error = _lookup.open();
  if (_error == 0) _error = _reports.open();
  if (_error != 0) {
    if (!maySoonBeOpened(_error)) _sockets = Sockets::kGivenUp;
    return false;
  }
  _sockets = Sockets::kOpen;
  requestSettling();  // somebody may have registered before
  return true;
}

std::string RouteMonitor::failure() {
  if (inForkedChild()) return {};
  const Lock lock(_mutex);
  if (isOpen() || _error == 0) return {};
  return "the netlink sockets cannot be opened: " + std::generic_category().message(_error);
}

std::shared_ptr<NetworkReachability> RouteMonitor::addTarget(const std::string& name,
                                                             std::vector<IpAddress> addresses) try {
  if (inForkedChild()) return nullptr;
  std::shared_ptr<RouteTarget> handle;
  const Lock lock(_mutex);
  if (isOpen() && !name.empty()) noticeNetwork();
  const TargetId id = ++_lastId;
  handle = std::make_shared<RouteTarget>(shared_from_this(), id);
  Target& target = _targets[id];
  target.handle = handle;
  target.name = name;
  target.addresses = std::move(addresses);
  resolveIfDue(id, target);
  return handle;
} catch (const std::exception&) {  // out of memory
  return nullptr;
}

void RouteMonitor::removeTarget(TargetId id) {
  if (inForkedChild()) return;
  // What the target holds may end with it, and does so after the lock.
  Target removed;
  const Lock lock(_mutex);
  const auto found = _targets.find(id);
  if (found == _targets.end()) return;
  removed = std::move(found->second);
  _targets.erase(found);
}

bool RouteMonitor::setCallback(TargetId id, NetworkReachabilityCallback callback,
                               const NetworkReachabilityContext& context) {
  if (inForkedChild()) return false;
  const Lock lock(_mutex);
  Target& target = _targets.at(id);
  const bool isReplaced = target.callback != nullptr;
  beginRegistration(target);
  target.callback = callback;
  target.info = context.info;
  if (!callback) return true;
  if (!isReplaced) {
    target.lastDelivered = flagsOf(target);
    // A reader may have seen another state before there was anybody to tell of its end.
    target.owesDelivery = target.lastRead && *target.lastRead != target.lastDelivered;
  }
  requestSettling();
  return true;
}

bool RouteMonitor::setDispatchQueue(TargetId id, std::shared_ptr<SerialQueue> queue) {
  if (inForkedChild()) return false;
  const Lock lock(_mutex);
  Target& target = _targets.at(id);
  beginRegistration(target);
  target.queue.swap(queue);
  if (target.callback && target.queue) requestSettling();
  return true;
}

void RouteMonitor::beginRegistration(Target& target) {
  ++target.registration;
  target.owesDelivery |= std::exchange(target.undelivered, 0) > 0;
}

bool RouteMonitor::getFlags(TargetId id, std::uint32_t& flags) try {
  if (inForkedChild()) return false;
  const Lock lock(_mutex);
  Target& target = _targets.at(id);
  if (isOpen() && !target.name.empty()) {
    noticeNetwork();
    if (target.addresses.empty()) target.resolveAt = Time::min();
    resolveIfDue(id, target);
  }
  const std::uint32_t now = flagsOf(target);
  target.lastRead = now;
  target.owesDelivery |= target.callback && now != target.lastDelivered;
  if (target.owesDelivery || _settling == Settling::kWanted) requestSettling();
  if (now == kUnknownFlags) return false;
  flags = now;
  return true;
} catch (const std::exception&) {  // out of memory
  return false;
}

std::uint32_t RouteMonitor::flagsOf(const Target& target, const IpAddress** way) {
  if (!isOpen()) return kSCNetworkReachabilityFlagsReachable;
  if (target.addresses.empty()) return kUnknownFlags;
  for (const IpAddress& address : target.addresses) {
    if (way) *way = &address;
    if (const std::uint32_t flags = flagsOf(address)) return flags;
  }
  return 0;
}

std::uint32_t RouteMonitor::flagsOf(const IpAddress& address) {
  std::optional<Route> route;
  if (!_lookup.lookUp(address, route)) return kUnknownFlags;
  const bool mustBeOnLink = isLocalNetwork(address);
  if (mustBeOnLink && route && route->kind != Route::Kind::kOnLink) return 0;
  return flagsOfRoute(route);
}

void RouteMonitor::noticeNetwork() {
  std::optional<Route> internet;
  if (!_lookup.lookUp(IpAddress(), internet) || internet == _internet) return;
  _internet = internet;
  for (auto& [id, target] : _targets) {
    target.resolveAt = Time::min();
    target.pause = kResolveInterval;
  }
}

void RouteMonitor::resolveIfDue(TargetId id, Target& target) {
  const Time now = Clock::now();
  if (target.name.empty() || target.isResolving || !isOpen()) return;
  if (now < target.resolveAt || now < target.mayResolveAt) return;
  target.mayResolveAt = now + kResolveInterval;
  target.isResolving =
      startThread("orbiqResolver", [self = shared_from_this(), id, name = target.name] {
        self->resolveOnThisThread(id, name);
      }) == 0;
  target.resolveAt = Time::max();
  if (!target.isResolving) takeAddresses(target, {});
}

void RouteMonitor::resolveOnThisThread(TargetId id, const std::string& name) {
  std::vector<IpAddress> addresses;
  runTask([&] { addresses = addressesOf(name); });
  const Lock lock(_mutex);
  const auto found = _targets.find(id);
  if (found == _targets.end()) return;
  found->second.isResolving = false;
  takeAddresses(found->second, std::move(addresses));
}

void RouteMonitor::takeAddresses(Target& target, std::vector<IpAddress> addresses) {
  if (addresses.empty()) {
    // The old addresses stand: without a network no name is found.
    target.resolveAt = std::min(target.resolveAt, Clock::now() + target.pause);
    target.pause = std::min(2 * target.pause, kLongestPause);
  } else {
    target.addresses = std::move(addresses);
    target.pause = kResolveInterval;
  }
  if (target.callback) requestSettling();
}

void RouteMonitor::requestSettling() noexcept {
  if (_sockets != Sockets::kOpen || _settling == Settling::kPosted) return;
  _settling = Settling::kWanted;
  try {
    if (MainLoop::mainLoop().post(settleIfAlive())) _settling = Settling::kPosted;
  } catch (const std::exception&) {  // out of memory: the next use tries again
  }
}

std::function<void()> RouteMonitor::settleIfAlive() {
  return [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->settle();
  };
}

void RouteMonitor::settle() try {
  {
    const Lock lock(_mutex);
    _settling = Settling::kNone;
  }
  const Time now = Clock::now();
  if (now < _mayLookAt) {
    setTimer(_mayLookAt);
    if (_timer != 0)
      setWatching(false);  // reports that wait would bring the loop back here at once
    return;
  }
  _mayLookAt = now + kLookInterval;
  setTimer(look(now));
} catch (const std::exception&) {  // out of memory
  const Lock lock(_mutex);
  _settling = Settling::kWanted;
  setTimer(Clock::now() + kLookAgainInterval);
}

RouteMonitor::Time RouteMonitor::look(Time now) {
  {
    const Lock lock(_mutex);
    const bool isWanted = std::any_of(_targets.begin(), _targets.end(),
                                      [](const auto& entry) { return entry.second.callback; });
    setWatching(isWanted);
    if (!isWanted) return Time::max();
  }
  _reports.takeIn();
  const Lock lock(_mutex);
  Time next = Time::max();
  noticeNetwork();
  for (auto& [id, target] : _targets) {
    if (target.callback) next = std::min(next, settle(id, target, now));
  }
  return next;
}

RouteMonitor::Time RouteMonitor::settle(TargetId id, Target& target, Time now) {
  resolveIfDue(id, target);
  Time next = Time::max();
  if (!target.name.empty() && !target.isResolving) {
    next = std::max(target.resolveAt, target.mayResolveAt);
  }
  if (!target.queue) return next;
  const IpAddress* way = nullptr;
  const std::uint32_t flags = flagsOf(target, &way);
  if (flags == kUnknownFlags) return way ? std::min(next, now + kLookAgainInterval) : next;
  if (flags != 0) {
    if (const auto expiry = _lookup.expiry(*way)) next = std::min(next, now + *expiry);
  }
  if (flags == target.lastDelivered && !target.owesDelivery) return next;
  target.queue->async([self = shared_from_this(), id, flags, registration = target.registration] {
    self->deliver(id, registration, flags);
  });
  target.lastDelivered = flags;
  target.lastRead = flags;
  target.owesDelivery = false;
  ++target.undelivered;
  return next;
}

void RouteMonitor::setWatching(bool isWatching) {
  if (isWatching == _isWatching) return;
  if (isWatching) {
    if (!MainLoop::mainLoop().watch(_reports.descriptor().number(), settleIfAlive())) {
      throw std::bad_alloc();
    }
  } else {
    MainLoop::mainLoop().unwatch(_reports.descriptor().number());
  }
  _isWatching = isWatching;
}

void RouteMonitor::setTimer(Time time) {
  if (_timer != 0) MainLoop::mainLoop().removeTimer(std::exchange(_timer, 0));
  if (time == Time::max()) return;
  _timer = MainLoop::mainLoop().addTimer(time - Clock::now(), false, settleIfAlive());
}

void RouteMonitor::deliver(TargetId id, std::uint64_t registration, std::uint32_t flags) {
  std::shared_ptr<NetworkReachability> handle;
  std::shared_ptr<void> info;
  NetworkReachabilityCallback callback = nullptr;
  {
    const Lock lock(_mutex);
    const auto found = _targets.find(id);
    if (found == _targets.end() || found->second.registration != registration) return;
    --found->second.undelivered;
    handle = found->second.handle.lock();
    info = found->second.info.lock();
    callback = found->second.callback;
  }
  if (handle && info) callback(*handle, flags, info.get());
}

}  // namespace orbiq
