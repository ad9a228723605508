#pragma once

#include <net/if.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>

#include "orbiq/services/platform/Descriptor.h"
#include "orbiq/services/platform/IpAddress.h"

struct nlmsghdr;

namespace orbiq {

/// The way to a destination. It leads over a link that is up and has a carrier.
struct Route {
  enum class Kind { kGateway, kOnLink, kLocal };
  Kind kind = Kind::kGateway;
  bool isWWAN = false;
  /// 0 for this machine's own addresses.
  int link = 0;
  bool operator==(const Route&) const = default;
};

/// A routing socket for requests that have one answer each. Not thread-safe.
class RouteSocket {
 public:
  /// Returns 0 or the error number. Until it has succeeded nothing is answered.
  int open();
  const Descriptor& descriptor() const { return _socket; }
  /// Sends the request and takes its answer, which stands until the next exchange; null if none
  /// came. An error of the kernel's is an answer.
  const nlmsghdr* exchange(nlmsghdr& request);

 private:
  Descriptor _socket;
  std::uint32_t _sequence = 0;
  alignas(4) std::array<char, 8192> _answer;
};

/// The kernel's reports of changes of links, addresses, routes and rules. Not thread-safe.
class RouteReports {
 public:
  /// Returns 0 or the error number.
  int open();
  /// Can be read when something was reported, or reports were lost.
  const Descriptor& descriptor() const { return _watch; }
  /// Takes in all reports, and returns when what they report has been done. For that it may wait
  /// for other changes in progress.
  void takeIn();

 private:
  Descriptor _watch;
  RouteSocket _requests;
};

/// Asks the kernel what way a connection of this process would take. The cost does not depend on
/// the number of routes, and nothing is waited for. Not thread-safe.
class RouteLookup {
 public:
  /// Returns 0 or the error number.
  int open() { return _requests.open(); }

  /// The way to the address; none if there is no usable one. The unspecified address of either
  /// family stands for the internet. False if the kernel gave no answer.
  bool lookUp(const IpAddress& address, std::optional<Route>& result);
  /// When the way to the IPv6 address, or to the internet by IPv6, ends by itself. The kernel
  /// reports that up to half a minute late.
  std::optional<std::chrono::milliseconds> expiry(const IpAddress& address);

 private:
  struct Link {
    int index = 0;
    char name[IFNAMSIZ] = "";
    int type = 0;
    bool isWWAN = false;
  };

  bool find(const IpAddress& address, bool isInternet, std::optional<Route>& result);
  const nlmsghdr* ask(const IpAddress& address, unsigned flags);
  const Link* usableLink(int index);
  const Link* usableLinkOfHops(const IpAddress& address);

  RouteSocket _requests;
  Link _lastLink;
};

}  // namespace orbiq
