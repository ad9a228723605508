#include "orbiq/services/platform/RouteReachability.h"

#include <netdb.h>

#include <functional>
#include <optional>
#include <utility>

#include "orbiq/services/platform/ForkGuard.h"
#include "orbiq/services/platform/MainLoop.h"
#include "orbiq/services/platform/Thread.h"

namespace orbiq {
namespace {

/// The flags of a name that was never resolved, or where the kernel gave no answer. No real flags
/// have this value.
constexpr std::uint32_t kUnknownFlags = 0xFFFFFFFF;
/// Reads of an unresolved name try again at most this often.
constexpr std::chrono::seconds kResolveInterval{5};
/// After the kernel could not be asked.
constexpr std::chrono::seconds kReadAgainInterval{1};

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
  std::shared_ptr<NetworkReachability> createWithName(const std::string& name) override {
    return name.empty() ? nullptr : _monitor->addTarget(name, {});
  }
  std::shared_ptr<NetworkReachability> createWithAddress(const sockaddr* address) override {
    const auto parsed = IpAddress::fromSocketAddress(address);
    return parsed ? _monitor->addTarget({}, {*parsed}) : nullptr;
  }
  std::string failure() const override { return _monitor->failure(); }

 private:
  const std::shared_ptr<RouteMonitor> _monitor = std::make_shared<RouteMonitor>();
};

}  // namespace

std::shared_ptr<NetworkReachabilitySource> makeRouteReachabilitySource() {
  return std::make_shared<RouteReachabilitySource>();
}

RouteMonitor::RouteMonitor() {
  armForkGuard();
  _table = RouteTable::open(_failure);
}

RouteMonitor::~RouteMonitor() {
  if (_isWatched) MainLoop::mainLoop().unwatch(_table->watchDescriptor());
}

std::shared_ptr<NetworkReachability> RouteMonitor::addTarget(const std::string& name,
                                                             std::vector<IpAddress> addresses) {
  if (inForkedChild()) return nullptr;
  std::shared_ptr<RouteTarget> handle;
  Work work;
  {
    const Lock lock(_mutex);
    const TargetId id = ++_lastId;
    handle = std::make_shared<RouteTarget>(shared_from_this(), id);
    Target& target = _targets[id];
    target.handle = handle;
    target.name = name;
    target.addresses = std::move(addresses);
    if (_table && !name.empty()) resolve(id, target, work);
  }
  perform(work);
  return handle;
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
  Work work;
  {
    const Lock lock(_mutex);
    if (!_table) return true;
    refresh(work);
    Target& target = _targets[id];
    const bool isReplaced = target.callback != nullptr;
    beginRegistration(target);
    target.callback = callback;
    target.info = context.info;
    if (callback && !isReplaced) {
      target.lastDelivered = flagsOf(target);
      // A reader may have seen another state before there was anybody to tell of its end.
      target.owesDelivery = target.wasRead && target.lastRead != target.lastDelivered;
    }
    work.settle |= callback && target.owesDelivery;
    work.watch = callback && !std::exchange(_isWatched, _isWatched || callback);
  }
  perform(work);
  return true;
}

bool RouteMonitor::setDispatchQueue(TargetId id, std::shared_ptr<SerialQueue> queue) {
  if (inForkedChild()) return false;
  Work work;
  {
    const Lock lock(_mutex);
    if (!_table) return true;
    Target& target = _targets[id];
    beginRegistration(target);
    target.queue.swap(queue);
    work.settle = target.callback && target.queue;
  }
  perform(work);
  return true;
}

void RouteMonitor::beginRegistration(Target& target) {
  ++target.registration;
  target.owesDelivery |= std::exchange(target.undelivered, 0) > 0;
}

bool RouteMonitor::getFlags(TargetId id, std::uint32_t& flags) {
  if (inForkedChild()) return false;
  Work work;
  std::uint32_t now = kSCNetworkReachabilityFlagsReachable;
  {
    const Lock lock(_mutex);
    if (_table) {
      refresh(work);
      Target& target = _targets[id];
      now = flagsOf(target);
      target.wasRead = true;
      target.lastRead = now;
      if (target.callback && now != target.lastDelivered && !target.owesDelivery) {
        target.owesDelivery = true;
        work.settle = true;
      }
      if (now == kUnknownFlags && !target.name.empty() && !target.isResolving &&
          std::chrono::steady_clock::now() >= target.nextAttempt) {
        resolve(id, target, work);
      }
    }
  }
  perform(work);
  if (now == kUnknownFlags) return false;
  flags = now;
  return true;
}

void RouteMonitor::refresh(Work& work) {
  const RouteTable::Refresh came = _table->refresh();
  if (!came.somethingCame) return;
  for (auto& [id, target] : _targets) {
    // The reports taken in here will not wake the loop any more.
    work.settle |= target.callback != nullptr;
    if (came.isChanged && !target.name.empty()) resolve(id, target, work);
  }
}

std::uint32_t RouteMonitor::flagsOf(const Target& target) {
  if (target.addresses.empty()) return kUnknownFlags;
  for (const IpAddress& address : target.addresses) {
    if (const std::uint32_t flags = flagsOf(address)) return flags;
  }
  return 0;
}

std::uint32_t RouteMonitor::flagsOf(const IpAddress& address) {
  if (address.isUnspecified()) return flagsOfRoute(_table->defaultRoute());
  std::optional<Route> route;
  if (!_table->lookUp(address, route)) return kUnknownFlags;
  const bool mustBeOnLink = isLocalNetwork(address);
  if (mustBeOnLink && route && route->kind != Route::Kind::kOnLink) return 0;
  return flagsOfRoute(route);
}

void RouteMonitor::resolve(TargetId id, Target& target, Work& work) {
  if (std::exchange(target.isResolving, true)) {
    target.mustResolveAgain = true;
  } else {
    work.resolve.emplace_back(id, target.name);
  }
}

void RouteMonitor::perform(const Work& work) {
  for (const auto& [id, name] : work.resolve) {
    const auto run = [self = shared_from_this(), id = id, name = name] {
      self->resolveOnThisThread(id, name);
    };
    if (startThread("orbiqResolver", run) == 0) continue;
    while (takeAddresses(id, {})) continue;
  }
  if (!work.watch && !work.settle) return;
  int descriptor = -1;
  bool mustPost = false;
  {
    const Lock lock(_mutex);
    descriptor = _table->watchDescriptor();
    mustPost = work.settle && !std::exchange(_settleIsPosted, true);
  }
  if (work.watch) MainLoop::mainLoop().watch(descriptor, settleIfAlive());
  if (mustPost) MainLoop::mainLoop().post(settleIfAlive());
}

std::function<void()> RouteMonitor::settleIfAlive() {
  return [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->settle();
  };
}

void RouteMonitor::settle() {
  Work work;
  std::vector<std::pair<std::shared_ptr<SerialQueue>, std::function<void()>>> deliveries;
  bool mustTryAgain = false;
  {
    const Lock lock(_mutex);
    _settleIsPosted = false;
    refresh(work);
    work.settle = false;
    mustTryAgain = _table->mustReadAgain();
    for (auto& [id, target] : _targets) {
      if (!target.callback || !target.queue) continue;
      const std::uint32_t now = flagsOf(target);
      if (now == kUnknownFlags) continue;
      if (now == target.lastDelivered && !target.owesDelivery) continue;
      target.lastDelivered = now;
      target.lastRead = now;
      target.owesDelivery = false;
      ++target.undelivered;
      deliveries.emplace_back(target.queue, [self = shared_from_this(), id = id, now,
                                             registration = target.registration] {
        self->deliver(id, registration, now);
      });
    }
  }
  for (auto& [queue, task] : deliveries) queue->async(std::move(task));
  perform(work);
  if (mustTryAgain) {
    // The reports are taken in already: nothing else would bring the loop back here.
    MainLoop::mainLoop().addTimer(kReadAgainInterval, false, settleIfAlive());
  }
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

void RouteMonitor::resolveOnThisThread(TargetId id, const std::string& name) {
  while (takeAddresses(id, addressesOf(name))) continue;
}

bool RouteMonitor::takeAddresses(TargetId id, std::vector<IpAddress> addresses) {
  Work work;
  {
    const Lock lock(_mutex);
    const auto found = _targets.find(id);
    if (found == _targets.end()) return false;
    Target& target = found->second;
    target.nextAttempt = std::chrono::steady_clock::now() + kResolveInterval;
    // The old addresses stand where there are no new ones: without a network no name is found.
    if (!addresses.empty()) target.addresses = std::move(addresses);
    target.isResolving = std::exchange(target.mustResolveAgain, false);
    if (target.isResolving) return true;
    work.settle = target.callback != nullptr;
  }
  perform(work);
  return false;
}

}  // namespace orbiq
