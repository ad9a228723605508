#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "orbiq/services/platform/IpAddress.h"
#include "orbiq/services/platform/Mutex.h"
#include "orbiq/services/platform/NetworkReachability.h"
#include "orbiq/services/platform/RouteTable.h"
#include "orbiq/services/platform/SerialQueue.h"

namespace orbiq {

/// Everything that the targets of one source share: the route table, what is known of each target,
/// and the one lock over both. Thread-safe; the lock is never held while anything of others runs.
///
/// Reads and the main loop refresh the same table, whoever comes first. Only the loop settles:
/// compares each target's flags with those last delivered, and delivers.
class RouteMonitor : public std::enable_shared_from_this<RouteMonitor> {
 public:
  using TargetId = std::uint64_t;

  RouteMonitor();
  ~RouteMonitor();
  RouteMonitor(const RouteMonitor&) = delete;
  RouteMonitor& operator=(const RouteMonitor&) = delete;

  /// Why the network cannot be watched, or empty. The same for the monitor's whole life.
  const std::string& failure() const { return _failure; }

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
  struct Target {
    std::weak_ptr<NetworkReachability> handle;

    std::string name;
    std::vector<IpAddress> addresses;
    bool isResolving = false;
    bool mustResolveAgain = false;
    std::chrono::steady_clock::time_point nextAttempt;

    NetworkReachabilityCallback callback = nullptr;
    std::weak_ptr<void> info;
    std::shared_ptr<SerialQueue> queue;
    /// Counts changes of callback or queue; a delivery made for an earlier one is dropped.
    std::uint64_t registration = 0;
    /// Deliveries of this registration that wait on the queue.
    int undelivered = 0;
    std::uint32_t lastDelivered = 0;
    /// What a reader was given last, if anybody ever read.
    bool wasRead = false;
    std::uint32_t lastRead = 0;
    /// A change is owed even if the flags are again those last delivered.
    bool owesDelivery = false;
  };
  /// What is to be done once the lock is free.
  struct Work {
    bool settle = false;
    bool watch = false;
    std::vector<std::pair<TargetId, std::string>> resolve;
  };

  void refresh(Work& work) ORBIQ_REQUIRES(_mutex);
  std::uint32_t flagsOf(const Target& target) ORBIQ_REQUIRES(_mutex);
  std::uint32_t flagsOf(const IpAddress& address) ORBIQ_REQUIRES(_mutex);
  void resolve(TargetId id, Target& target, Work& work) ORBIQ_REQUIRES(_mutex);
  /// Ends the registration's deliveries; what was under way is owed to the next one.
  static void beginRegistration(Target& target);
  void perform(const Work& work) ORBIQ_EXCLUDES(_mutex);

  void settle() ORBIQ_EXCLUDES(_mutex);
  std::function<void()> settleIfAlive();
  void deliver(TargetId id, std::uint64_t registration, std::uint32_t flags) ORBIQ_EXCLUDES(_mutex);
  void resolveOnThisThread(TargetId id, const std::string& name) ORBIQ_EXCLUDES(_mutex);
  /// True if the name is to be looked up once more.
  bool takeAddresses(TargetId id, std::vector<IpAddress> addresses) ORBIQ_EXCLUDES(_mutex);

  std::string _failure;
  Mutex _mutex;
  /// Null if the network cannot be watched.
  std::unique_ptr<RouteTable> _table ORBIQ_GUARDED_BY(_mutex);
  std::map<TargetId, Target> _targets ORBIQ_GUARDED_BY(_mutex);
  TargetId _lastId ORBIQ_GUARDED_BY(_mutex) = 0;
  bool _isWatched ORBIQ_GUARDED_BY(_mutex) = false;
  bool _settleIsPosted ORBIQ_GUARDED_BY(_mutex) = false;
};

}  // namespace orbiq
