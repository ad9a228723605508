#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "orbiq/services/platform/IpAddress.h"
#include "orbiq/services/platform/MainLoop.h"
#include "orbiq/services/platform/Mutex.h"
#include "orbiq/services/platform/NetworkReachability.h"
#include "orbiq/services/platform/RouteLookup.h"
#include "orbiq/services/platform/SerialQueue.h"

namespace orbiq {

/// Everything that the targets of one source share: the sockets, what is known of each target, and
/// the one lock over both. Thread-safe. The lock may be held while one of the main loop's, a serial
/// queue's or a thread start's is taken, never while a callback runs.
///
/// A read asks the kernel. The main loop alone takes in its reports and settles: compares each
/// target's flags with those last delivered, and delivers.
class RouteMonitor : public std::enable_shared_from_this<RouteMonitor> {
 public:
  using TargetId = std::uint64_t;

  /// Where reachability is assumed, no socket is ever opened.
  explicit RouteMonitor(bool isAssumed);
  ~RouteMonitor();
  RouteMonitor(const RouteMonitor&) = delete;
  RouteMonitor& operator=(const RouteMonitor&) = delete;

  /// See NetworkReachabilitySource.
  std::string failure();

  /// A target with a name is resolved first; without one it has its addresses.
  std::shared_ptr<NetworkReachability> addTarget(const std::string& name,
                                                 std::vector<IpAddress> addresses);
  void removeTarget(TargetId id);

  // See NetworkReachability.
  bool setCallback(TargetId id, NetworkReachabilityCallback callback,
                   const NetworkReachabilityContext& context);
  bool setDispatchQueue(TargetId id, std::shared_ptr<SerialQueue> queue);
  bool getFlags(TargetId id, std::uint32_t& flags);

 private:
  using Clock = std::chrono::steady_clock;
  using Time = Clock::time_point;

  struct Target {
    std::weak_ptr<NetworkReachability> handle;

    std::string name;
    std::vector<IpAddress> addresses;
    bool isResolving = false;
    /// When the name is to be looked up, but not before `mayResolveAt`.
    Time resolveAt = Time::min();
    Time mayResolveAt = Time::min();
    std::chrono::seconds pause{1};

    NetworkReachabilityCallback callback = nullptr;
    std::weak_ptr<void> info;
    std::shared_ptr<SerialQueue> queue;
    /// Counts changes of callback or queue; a delivery made for an earlier one is dropped.
    std::uint64_t registration = 0;
    /// Deliveries of this registration that wait on the queue.
    int undelivered = 0;
    std::uint32_t lastDelivered = 0;
    /// What a reader was given last, if anybody ever read.
    std::optional<std::uint32_t> lastRead;
    /// A change is owed even if the flags are again those last delivered.
    bool owesDelivery = false;
  };

  enum class Sockets { kClosed, kOpen, kGivenUp };
  enum class Settling { kNone, kWanted, kPosted };

  /// Opens the sockets where that has not been done, or failed for a reason that may pass.
  bool isOpen() ORBIQ_REQUIRES(_mutex);
  /// `way`, if given, is set to the address that can be reached.
  std::uint32_t flagsOf(const Target& target, const IpAddress** way = nullptr)
      ORBIQ_REQUIRES(_mutex);
  std::uint32_t flagsOf(const IpAddress& address) ORBIQ_REQUIRES(_mutex);
  /// Ends the registration's deliveries; what was under way is owed to the next one.
  static void beginRegistration(Target& target);
  void deliver(TargetId id, std::uint64_t registration, std::uint32_t flags) ORBIQ_EXCLUDES(_mutex);

  /// Has the names looked up again if the way to the internet is another.
  void noticeNetwork() ORBIQ_REQUIRES(_mutex);
  void resolveIfDue(TargetId id, Target& target) ORBIQ_REQUIRES(_mutex);
  void resolveOnThisThread(TargetId id, const std::string& name) ORBIQ_EXCLUDES(_mutex);
  void takeAddresses(Target& target, std::vector<IpAddress> addresses) ORBIQ_REQUIRES(_mutex);

  void requestSettling() noexcept ORBIQ_REQUIRES(_mutex);
  std::function<void()> settleIfAlive();
  void settle() ORBIQ_EXCLUDES(_mutex);
  /// Returns when the next look is due.
  Time look(Time now) ORBIQ_EXCLUDES(_mutex);
  Time settle(TargetId id, Target& target, Time now) ORBIQ_REQUIRES(_mutex);
  void setWatching(bool isWatching);
  void setTimer(Time time);

  Mutex _mutex;
  Sockets _sockets ORBIQ_GUARDED_BY(_mutex);
  /// Why they could not be opened.
  int _error ORBIQ_GUARDED_BY(_mutex) = 0;
  RouteLookup _lookup ORBIQ_GUARDED_BY(_mutex);
  std::map<TargetId, Target> _targets ORBIQ_GUARDED_BY(_mutex);
  TargetId _lastId ORBIQ_GUARDED_BY(_mutex) = 0;
  Settling _settling ORBIQ_GUARDED_BY(_mutex) = Settling::kNone;
  /// The way to the internet at the last look, for the names.
  std::optional<Route> _internet ORBIQ_GUARDED_BY(_mutex);

  // The main loop's own, once the sockets are open.
  RouteReports _reports;
  bool _isWatching = false;
  Time _mayLookAt = Time::min();
  MainLoop::TimerId _timer = 0;
};

}  // namespace orbiq
