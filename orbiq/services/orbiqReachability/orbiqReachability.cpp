#include "orbiq/services/orbiqReachability/orbiqReachability.h"

#include <arpa/inet.h>
#include <cxxabi.h>
#include <netinet/in.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>
#include <typeinfo>
#include <utility>

#include "orbiq/services/orbiqLogger/WithoutThrowing.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/platform/base/ForkGuard.h"
#include "orbiq/services/platform/host/HostApplication.h"
#include "orbiq/services/platform/host/Platform.h"
#include "orbiq/services/platform/loop/MainLoop.h"
#include "orbiq/services/platform/loop/NotificationCenter.h"
#include "orbiq/services/platform/loop/SerialQueue.h"
#include "orbiq/services/platform/threads/Thread.h"

using enum orbiq::NetworkReachabilityFlags;
using orbiq::withoutThrowing;

constinit const char* const korbiqReachabilityChangedNotification =
    "korbiqReachabilityChangedNotification";

namespace {

constexpr std::uint32_t kAnyInternetAddress = 0;
constexpr std::uint32_t kLocalNetworkAddress = 0xA9FE0000;  // 169.254.0.0

bool hasAll(std::uint32_t flags, std::uint32_t wanted) { return (flags & wanted) == wanted; }

/// The source of handles, or null. That the network cannot be watched is said at its first use.
orbiq::NetworkReachabilitySource* reachabilitySource() {
  if (orbiq::HostApplication::current().assumeReachable) {
    static auto* const assumed =
        new auto(orbiq::makeAssumedReachabilitySource());  // never destroyed
    return assumed->get();
  }
  orbiq::NetworkReachabilitySource* const source =
      orbiq::Platform::current().reachabilitySource.get();
  static std::atomic_flag isSaid;
  const std::string failure = source ? source->failure() : std::string();
  if (!failure.empty() && !isSaid.test_and_set()) {
    orbiqLogger::log_withMode(
        [&] {
          return "The network cannot be watched, every target counts as reachable: " + failure;
        },
        orbiq::LoggingModeWarning);
  }
  return source;
}

std::shared_ptr<orbiqReachability> monitorOf(orbiqReachability::Handle handle) {
  return handle ? orbiqReachability::initWithReachabilityRef(std::move(handle)) : nullptr;
}

std::shared_ptr<orbiqReachability> monitorOfIPv4(std::uint32_t hostOrderAddress) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(hostOrderAddress);
  return orbiqReachability::reachabilityWithAddress(reinterpret_cast<const sockaddr*>(&address));
}

orbiq::String localized(const char* text) {
  return withoutThrowing([text] {
    const auto& localize = orbiq::HostApplication::current().localize;
    orbiq::String translated;
    if (localize) orbiq::runTask([&] { translated = localize(text); });
    return translated.isNull() ? orbiq::String(text) : translated;
  });
}

}  // namespace

std::shared_ptr<orbiqReachability> orbiqReachability::reachabilityWithHostname(
    const orbiq::String& hostname) {
  return withoutThrowing([&]() -> std::shared_ptr<orbiqReachability> {
    orbiq::NetworkReachabilitySource* const source = reachabilitySource();
    if (!source || hostname.isNull()) return nullptr;
    return monitorOf(source->createWithName(hostname.toStdString()));
  });
}

std::shared_ptr<orbiqReachability> orbiqReachability::reachabilityWithHostName(
    const orbiq::String& hostName) {
  return orbiqReachability::reachabilityWithHostname(hostName);
}

std::shared_ptr<orbiqReachability> orbiqReachability::reachabilityWithAddress(
    const sockaddr* hostAddress) {
  return withoutThrowing([&] {
    orbiq::NetworkReachabilitySource* const source = reachabilitySource();
    return source ? monitorOf(source->createWithAddress(hostAddress)) : nullptr;
  });
}

std::shared_ptr<orbiqReachability> orbiqReachability::reachabilityForInternetConnection() {
  return monitorOfIPv4(kAnyInternetAddress);
}

std::shared_ptr<orbiqReachability> orbiqReachability::reachabilityForLocalWiFi() {
  return monitorOfIPv4(kLocalNetworkAddress);
}

std::shared_ptr<orbiqReachability> orbiqReachability::initWithReachabilityRef(
    Handle reachabilityRef) {
  return withoutThrowing(
      [&] { return std::make_shared<orbiqReachability>(Passkey(), std::move(reachabilityRef)); });
}

orbiqReachability::orbiqReachability(Passkey, Handle reachabilityRef)
    : _reachabilityRef(std::move(reachabilityRef)) {}

orbiqReachability::~orbiqReachability() { stopNotifier(); }

void orbiqReachability::setReachabilityRef(Handle reachabilityRef) {
  withoutThrowing([&] {
    // Deliberately keeps the old handle, which goes on reporting if it was registered.
    if (_reachabilityRef && _reachabilityRef != reachabilityRef) {
      _replacedReachabilityRefs.push_back(_reachabilityRef);
    }
    _reachabilityRef = std::move(reachabilityRef);
  });
}

void orbiqReachability::setReachabilitySerialQueue(std::shared_ptr<orbiq::SerialQueue> queue) {
  _reachabilitySerialQueue = std::move(queue);
}

void orbiqReachability::setReachabilityObject(std::shared_ptr<orbiq::Object> object) {
  _reachabilityObject.swap(object);
}

bool orbiqReachability::startNotifier() {
  const auto self = weak_from_this().lock();
  if (!self) return false;  // it is being destroyed
  // There is deliberately no guard against a second start: it registers anew.
  setReachabilityObject(self);
  _reachabilitySerialQueue = withoutThrowing(
      [] { return std::make_shared<orbiq::SerialQueue>("com.vorlune.reachability"); });
  // Deliberately leaves the self-reference in place.
  if (!_reachabilitySerialQueue) return false;

  bool hasCallback = false;
  const auto start = [&] {
    hasCallback =
        _reachabilityRef && _reachabilityRef->setCallback(orbiq::reachabilityCallback, {0, self});
    return hasCallback && _reachabilityRef->setDispatchQueue(_reachabilitySerialQueue);
  };
  if (withoutThrowing(start)) return true;
  if (hasCallback) withoutThrowing([&] { _reachabilityRef->setCallback(nullptr, {}); });
  _reachabilitySerialQueue = nullptr;
  setReachabilityObject(nullptr);
  return false;
}

void orbiqReachability::stopNotifier() {
  withoutThrowing([&] {
    if (!_reachabilityRef) return;
    _reachabilityRef->setCallback(nullptr, {});
    _reachabilityRef->setDispatchQueue(nullptr);
  });
  _reachabilitySerialQueue = nullptr;
  // Last, because the monitor may end with it.
  setReachabilityObject(nullptr);
}

void orbiqReachability::reachabilityChanged(std::uint32_t flags) {
  const auto self = weak_from_this().lock();  // the block may let go of the last other owner
  if (!self) return;
  orbiq::runTask([&] {
    // Copied, so that a block may replace itself.
    const Block block = isReachableWithFlags(flags) ? _reachableBlock : _unreachableBlock;
    if (block) block(*this);
  });
  withoutThrowing([&] {
    const std::string name = korbiqReachabilityChangedNotification;
    const bool isPosted = orbiq::MainLoop::mainLoop().post([self, name] {
      orbiq::NotificationCenter::defaultCenter().postNotificationName(name, self);
    });
    if (!isPosted && !orbiq::inForkedChild()) throw std::bad_alloc();
  });
}

bool orbiqReachability::isReachableWithFlags(std::uint32_t flags) const {
  if (hasAll(flags, kSCNetworkReachabilityFlagsTransientConnection |
                        kSCNetworkReachabilityFlagsConnectionRequired)) {
    return false;
  }
  if (hasAll(flags, kSCNetworkReachabilityFlagsIsWWAN) && !reachableOnWWAN()) return false;
  return hasAll(flags, kSCNetworkReachabilityFlagsReachable);
}

bool orbiqReachability::isReachable() { return isReachableWithFlags(reachabilityFlags()); }

bool orbiqReachability::isReachableViaWWAN() {
  return hasAll(reachabilityFlags(),
                kSCNetworkReachabilityFlagsReachable | kSCNetworkReachabilityFlagsIsWWAN);
}

bool orbiqReachability::isReachableViaWiFi() {
  const std::uint32_t flags = reachabilityFlags();
  return hasAll(flags, kSCNetworkReachabilityFlagsReachable) &&
         !hasAll(flags, kSCNetworkReachabilityFlagsIsWWAN);
}

bool orbiqReachability::connectionRequired() {
  return hasAll(reachabilityFlags(), kSCNetworkReachabilityFlagsConnectionRequired);
}

bool orbiqReachability::isConnectionRequired() { return connectionRequired(); }

bool orbiqReachability::isConnectionOnDemand() {
  const std::uint32_t flags = reachabilityFlags();
  return hasAll(flags, kSCNetworkReachabilityFlagsConnectionRequired) &&
         (flags & (kSCNetworkReachabilityFlagsConnectionOnTraffic |
                   kSCNetworkReachabilityFlagsConnectionOnDemand)) != 0;
}

bool orbiqReachability::isInterventionRequired() {
  return hasAll(reachabilityFlags(), kSCNetworkReachabilityFlagsConnectionRequired |
                                         kSCNetworkReachabilityFlagsInterventionRequired);
}

std::uint32_t orbiqReachability::reachabilityFlags() {
  std::uint32_t flags = 0;
  const auto read = [&] { return _reachabilityRef && _reachabilityRef->getFlags(flags); };
  return withoutThrowing(read) ? flags : 0;
}

orbiq::ReachabilityStatus orbiqReachability::currentReachabilityStatus() {
  // Two readings, one for each question.
  if (!isReachable()) return orbiq::ReachabilityStatusNotReachable;
  return isReachableViaWiFi() ? orbiq::ReachabilityStatusViaWiFi : orbiq::ReachabilityStatusViaWWAN;
}

orbiq::String orbiqReachability::currentReachabilityString() {
  const orbiq::ReachabilityStatus status = currentReachabilityStatus();
  // Deliberately compares with the switch itself: while mobile networks do not count, "not
  // reachable" (0) reads "Cellular".
  if (status == static_cast<std::uintptr_t>(reachableOnWWAN())) return localized("Cellular");
  return localized(status == orbiq::ReachabilityStatusViaWiFi ? "WiFi" : "No Connection");
}

orbiq::String orbiqReachability::currentReachabilityFlags() {
  constexpr std::pair<std::uint32_t, char> kLetters[] = {
      {kSCNetworkReachabilityFlagsIsWWAN, 'W'},
      {kSCNetworkReachabilityFlagsReachable, 'R'},
      {kSCNetworkReachabilityFlagsConnectionRequired, 'c'},
      {kSCNetworkReachabilityFlagsTransientConnection, 't'},
      {kSCNetworkReachabilityFlagsInterventionRequired, 'i'},
      {kSCNetworkReachabilityFlagsConnectionOnTraffic, 'C'},
      {kSCNetworkReachabilityFlagsConnectionOnDemand, 'D'},
      {kSCNetworkReachabilityFlagsIsLocalAddress, 'l'},
      {kSCNetworkReachabilityFlagsIsDirect, 'd'},
  };
  const std::uint32_t flags = reachabilityFlags();
  return withoutThrowing([&] {
    std::string text;
    for (const auto& [flag, letter] : kLetters) text += (flags & flag) ? letter : '-';
    return orbiq::String(text.insert(2, 1, ' '));
  });
}

std::string orbiqReachability::description() const {
  return withoutThrowing([&] {
    const std::unique_ptr<char, void (*)(void*)> name(
        abi::__cxa_demangle(typeid(*this).name(), nullptr, nullptr, nullptr), std::free);
    char address[16];
    std::snprintf(address, sizeof address, "%#x",
                  static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(this)));
    return std::string("<") + (name ? name.get() : "orbiqReachability") + ": " + address + ">";
  });
}

void orbiq::reachabilityCallback(NetworkReachability&, std::uint32_t flags, void* info) {
  if (!info) return;
  const auto monitor = static_cast<orbiqReachability*>(info)->weak_from_this().lock();
  if (monitor) monitor->reachabilityChanged(flags);
}
