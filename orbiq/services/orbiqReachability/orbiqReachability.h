#pragma once

/// @file
/// Watching the network.

#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "orbiq/services/platform/base/Export.h"
#include "orbiq/services/platform/base/Object.h"
#include "orbiq/services/platform/network/NetworkReachability.h"
#include "orbiq/services/platform/text/String.h"

namespace orbiq {

/// The way to a network target.
enum ReachabilityStatus : std::uintptr_t {
  ReachabilityStatusNotReachable = 0,
  ReachabilityStatusViaWWAN = 1,
  ReachabilityStatusViaWiFi = 2,
};

}  // namespace orbiq

/// Posted on the main loop, with the monitor as its object, after each change that a started
/// monitor is told of.
extern ORBIQ_EXPORT const char* const korbiqReachabilityChangedNotification;

/// Watches whether a network target can be reached.
///
/// The predicates read the network's state at the time of the call, on any thread, without waiting;
/// where it cannot be read (no handle, a name that is not yet resolved) they answer false or 0. The
/// properties are not synchronised: set them before `startNotifier`. Only `reachableOnWWAN` may be
/// changed at any time. No exception leaves a call: where memory runs out a factory answers null,
/// and every other call as if the target could not be read.
///
/// Monitors are made by the factories. A started monitor keeps itself alive until `stopNotifier`.
class ORBIQ_EXPORT orbiqReachability : public orbiq::Object,
                                       public std::enable_shared_from_this<orbiqReachability> {
 protected:
  /// Only factories, also those of a subclass, can name it.
  struct Passkey {
    explicit Passkey() = default;
  };

 public:
  /// A watched target; may be null.
  using Handle = std::shared_ptr<orbiq::NetworkReachability>;
  /// What is called after a change; an exception that it throws is caught and dropped.
  using Block = std::function<void(orbiqReachability& monitor)>;

  /// A monitor of a host by name; null for a null or empty name.
  static std::shared_ptr<orbiqReachability> reachabilityWithHostname(const orbiq::String& hostname);
  /// The same under another name. A subclass that has its own `reachabilityWithHostname` still gets
  /// a monitor of this class here.
  static std::shared_ptr<orbiqReachability> reachabilityWithHostName(const orbiq::String& hostName);
  /// A monitor of an IPv4 or IPv6 address; null for a null pointer or another family.
  static std::shared_ptr<orbiqReachability> reachabilityWithAddress(const sockaddr* hostAddress);
  /// A monitor of any route to the internet (0.0.0.0).
  static std::shared_ptr<orbiqReachability> reachabilityForInternetConnection();
  /// A monitor of the link-local network (169.254.0.0).
  static std::shared_ptr<orbiqReachability> reachabilityForLocalWiFi();
  /// A monitor of the handle's target. With a null handle everything reads as unreachable.
  static std::shared_ptr<orbiqReachability> initWithReachabilityRef(Handle reachabilityRef);

  /// For the factories alone.
  orbiqReachability(Passkey passkey, Handle reachabilityRef);
  /// Stops the notifier and lets go of the handle and the callbacks.
  ~orbiqReachability() override;
  orbiqReachability(const orbiqReachability&) = delete;
  orbiqReachability& operator=(const orbiqReachability&) = delete;

  /// Whether a connection over a mobile network counts as reachable; true at first.
  bool reachableOnWWAN() const { return _reachableOnWWAN.load(std::memory_order_relaxed); }
  /// Any thread.
  void setReachableOnWWAN(bool reachable) {
    _reachableOnWWAN.store(reachable, std::memory_order_relaxed);
  }
  /// The target that is asked; may be null.
  Handle reachabilityRef() const { return _reachabilityRef; }
  /// Only stores the new handle. The old one is not let go before the monitor ends, and if it was
  /// registered it goes on reporting.
  void setReachabilityRef(Handle reachabilityRef);
  /// The queue "com.vorlune.reachability" on which changes arrive; null unless notifying. Its class
  /// is defined in SerialQueue.h.
  std::shared_ptr<orbiq::SerialQueue> reachabilitySerialQueue() const {
    return _reachabilitySerialQueue;
  }
  /// Only stores the queue, which `startNotifier` replaces.
  void setReachabilitySerialQueue(std::shared_ptr<orbiq::SerialQueue> queue);
  /// Called on the serial queue after a change that leaves the target reachable; may be empty.
  const Block& reachableBlock() const { return _reachableBlock; }
  /// Not while notifying.
  void setReachableBlock(Block block) { _reachableBlock = std::move(block); }
  /// Called on the serial queue after a change that leaves the target unreachable; may be empty.
  const Block& unreachableBlock() const { return _unreachableBlock; }
  /// Not while notifying.
  void setUnreachableBlock(Block block) { _unreachableBlock = std::move(block); }
  /// The monitor itself while notifying, null otherwise.
  std::shared_ptr<orbiq::Object> reachabilityObject() const { return _reachabilityObject; }
  /// Lets go of the one before: the monitor may be destroyed by this call.
  void setReachabilityObject(std::shared_ptr<orbiq::Object> object);

  /// Begins to report changes: each one runs one of the two blocks on the serial queue and posts
  /// one notification on the main loop. The state at the time of the call is reported only if the
  /// monitor last reported, or answered, another one. A second call registers anew, on a new queue.
  /// False, and nothing is reported, if it cannot be done.
  bool startNotifier();
  /// Ends the reports; harmless if there are none. A block in progress on the serial queue may
  /// still end. The monitor may be destroyed by this call if nobody else holds it.
  void stopNotifier();
  /// Handles a change to the given flags: the fitting block is called on the calling thread, then
  /// the notification is handed to the main loop, which keeps the monitor alive until it is posted.
  void reachabilityChanged(std::uint32_t flags);

  /// Reachable, not by a transient connection that would first have to be made, and not over a
  /// mobile network unless that counts.
  bool isReachable();
  /// Reachable over a mobile network, whether that counts or not.
  bool isReachableViaWWAN();
  /// Reachable otherwise than over a mobile network.
  bool isReachableViaWiFi();
  /// A connection would first have to be made.
  bool connectionRequired();
  /// The same under another name.
  bool isConnectionRequired();
  /// Such a connection is made when there is traffic.
  bool isConnectionOnDemand();
  /// Such a connection needs the user.
  bool isInterventionRequired();
  /// The current `NetworkReachabilityFlags`, 0 where they cannot be read.
  std::uint32_t reachabilityFlags();
  /// The way to the target; a mobile network that does not count is no way.
  orbiq::ReachabilityStatus currentReachabilityStatus();
  /// "Cellular", "WiFi" or "No Connection", as the host application translates it. While mobile
  /// networks do not count, an unreachable target reads "Cellular".
  orbiq::String currentReachabilityString();
  /// One letter for each flag that is set, "-" for one that is not: "WR ctiCDld".
  orbiq::String currentReachabilityFlags();
  /// "<orbiqReachability: 0x1f2e3d4c>": the class and the low 32 bits of the address.
  std::string description() const override;

 private:
  bool isReachableWithFlags(std::uint32_t flags) const;

  std::atomic<bool> _reachableOnWWAN{true};
  Handle _reachabilityRef;
  std::shared_ptr<orbiq::SerialQueue> _reachabilitySerialQueue;
  Block _reachableBlock;
  Block _unreachableBlock;
  std::shared_ptr<orbiq::Object> _reachabilityObject;
  std::vector<Handle> _replacedReachabilityRefs;
};

namespace orbiq {

/// What a monitor registers with its handle: tells the monitor that `info` points to of a change.
/// Does nothing for a null `info` or a monitor that is being destroyed.
ORBIQ_EXPORT void reachabilityCallback(NetworkReachability& target, std::uint32_t flags,
                                       void* info);

}  // namespace orbiq
