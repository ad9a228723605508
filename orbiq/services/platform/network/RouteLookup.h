#pragma once

#include <net/if.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>

#include "orbiq/services/platform/files/Descriptor.h"
#include "orbiq/services/platform/network/IpAddress.h"

struct nlmsghdr;

namespace orbiq {

/// True for an error that may be gone at the next try: something ran out, or a call was
/// interrupted.
bool mayPass(int error);

/// The way to a destination.
struct Route {
  /// All but `kNone` lead over a link that is up and has a carrier, or to this machine itself.
  enum class Kind { kNone, kGateway, kOnLink, kLocal };
  Kind kind = Kind::kNone;
  bool isWWAN = false;
  /// 0 for `kNone` and `kLocal`.
  int link = 0;
  /// After this time an IPv6 route ends by itself. The kernel reports that up to half a minute
  /// late.
  std::optional<std::chrono::milliseconds> lifetime{};
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
  /// for other changes in progress. False if it could not wait, so that a look may come too early.
  bool takeIn();

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
  /// The way to the address. The unspecified address of either family stands for the internet.
  /// Nothing if the kernel gave no answer, as when memory ran out.
  std::optional<Route> lookUp(const IpAddress& address);

 private:
  struct Answer;

  std::optional<Route> wayTo(const IpAddress& address, bool isInternet);
  /// Nothing if there was no answer. `flags` are rtnetlink's.
  std::optional<Answer> requestRoute(const IpAddress& address, unsigned flags);
  /// Leads the route over the link if that is usable. False if it cannot be told.
  bool leadOver(int link, Route& route);

  RouteSocket _requests;
  /// The link used last, whose kind need not be read again.
  struct {
    int index = 0;
    char name[IFNAMSIZ] = "";
    int type = 0;
    bool isWWAN = false;
  } _lastLink;
};

}  // namespace orbiq
