#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <memory>
#include <string>

#include "orbiq/services/platform/base/Export.h"

namespace orbiq {

class SerialQueue;

/// What is known of the way to a network target, as bits. This machine's own targets are never of
/// the kinds whose connection would first have to be made.
enum NetworkReachabilityFlags : std::uint32_t {
  /// Over a connection that may end by itself.
  kSCNetworkReachabilityFlagsTransientConnection = 1,
  /// There is a way.
  kSCNetworkReachabilityFlagsReachable = 2,
  /// A connection would first have to be made.
  kSCNetworkReachabilityFlagsConnectionRequired = 4,
  /// Traffic makes that connection.
  kSCNetworkReachabilityFlagsConnectionOnTraffic = 8,
  /// The user has to do something to make that connection.
  kSCNetworkReachabilityFlagsInterventionRequired = 16,
  /// That connection is made on demand.
  kSCNetworkReachabilityFlagsConnectionOnDemand = 32,
  /// An address of this machine.
  kSCNetworkReachabilityFlagsIsLocalAddress = 65536,
  /// On a network of this machine, without a gateway.
  kSCNetworkReachabilityFlagsIsDirect = 131072,
  /// Over a mobile network.
  kSCNetworkReachabilityFlagsIsWWAN = 262144,
};

class NetworkReachability;

/// Whom a change is delivered for. The context does not keep `info` alive; a delivery whose `info`
/// is gone, or was never given, is dropped.
struct NetworkReachabilityContext {
  /// Always 0.
  int version = 0;
  /// Handed to the callback.
  std::weak_ptr<void> info;
};

/// Is told of a change: the target, its new flags and the context's `info`, which lives during the
/// call.
using NetworkReachabilityCallback = void (*)(NetworkReachability& target, std::uint32_t flags,
                                             void* info);

/// A watched network target. Thread-safe. It keeps neither its callback's `info` nor itself alive:
/// with its last owner the registration ends. In a forked child nothing is known and nothing can be
/// registered.
class ORBIQ_EXPORT NetworkReachability {
 public:
  virtual ~NetworkReachability() = default;

  /// Registers the callback, replacing an earlier one; null unregisters. Registering delivers
  /// nothing by itself; from then on each change of the flags is delivered once, in order, and so
  /// is the return to the flags last delivered if `getFlags` gave others in between (or before the
  /// registration). Deliveries that still wait on the queue are dropped when callback or queue are
  /// set; one in progress on another thread may still end. False if it cannot be done.
  virtual bool setCallback(NetworkReachabilityCallback callback,
                           const NetworkReachabilityContext& context) = 0;
  /// The queue on which the callback runs; null, as at first, stops deliveries. A change that comes
  /// without a queue is delivered on the next one, unless it was undone. False if it cannot be
  /// done.
  virtual bool setDispatchQueue(std::shared_ptr<SerialQueue> queue) = 0;
  /// Reads the current flags, without waiting; false, with `flags` untouched, if they are not known
  /// (a name that is not yet resolved).
  virtual bool getFlags(std::uint32_t& flags) = 0;
};

/// @cond
/// Where watched targets come from. Thread-safe.
class NetworkReachabilitySource {
 public:
  virtual ~NetworkReachabilitySource() = default;
  /// A host by name, which is resolved off the caller's thread; null for an empty name.
  virtual std::shared_ptr<NetworkReachability> createWithName(const std::string& name) = 0;
  /// An IPv4 or IPv6 address; the port does not matter. 0.0.0.0 (and ::) stands for any route to
  /// the internet, 169.254.0.0 for the local network. Null for a null pointer or another family.
  virtual std::shared_ptr<NetworkReachability> createWithAddress(const sockaddr* address) = 0;
  /// Why the network can never be watched, so that everything reads as reachable and no change
  /// comes; empty if it can, or may be later.
  virtual std::string failure() = 0;
};

/// The targets of this machine, as the kernel would route this process's connections. Each source
/// opens sockets of its own at its first use, in the network namespace of the calling thread; what
/// cannot be opened for want of descriptors or memory is tried again at the next use.
std::shared_ptr<NetworkReachabilitySource> makeRouteReachabilitySource();
/// Targets that are reachable and never change; the machine is not asked.
std::shared_ptr<NetworkReachabilitySource> makeAssumedReachabilitySource();
/// @endcond

}  // namespace orbiq
