#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "orbiq/services/platform/IpAddress.h"

struct mnl_socket;
struct nlmsghdr;

namespace orbiq {

/// The way to a destination. It leads over a link that is up and has a carrier.
struct Route {
  enum class Kind { kGateway, kOnLink, kLocal };
  Kind kind = Kind::kGateway;
  bool isWWAN = false;
};

/// The kernel's links and routes, as netlink tells them. Not thread-safe: its owner locks.
///
/// Links and default routes are kept as they were at the last `refresh()`, which costs next to
/// nothing while the kernel reports no change; a look-up asks the kernel each time.
class RouteTable {
 public:
  /// Opens the sockets and reads links and routes once. Null if that fails, with the cause in
  /// `failure`.
  static std::unique_ptr<RouteTable> open(std::string& failure);
  ~RouteTable();
  RouteTable(const RouteTable&) = delete;
  RouteTable& operator=(const RouteTable&) = delete;

  /// Can be read when the kernel has reported something. Not to be read by others.
  int watchDescriptor() const;

  struct Refresh {
    /// The kernel reported something, or lost reports.
    bool somethingCame = false;
    /// Links or default routes are others than before.
    bool isChanged = false;
  };
  /// Takes in the kernel's reports without waiting for any, and reads links and routes again if
  /// there were some. Where that reading fails the old state stands and the next refresh repeats
  /// it.
  Refresh refresh();
  /// The last reading failed.
  bool mustReadAgain() const { return _mustRead; }

  /// The default route of the lowest metric, of any table and either family, that leads over a
  /// usable link.
  std::optional<Route> defaultRoute() const;
  /// The kernel's choice of a way to the address. Never to be asked about the unspecified address,
  /// which the kernel takes for the machine itself.
  /// False if the kernel gave no answer.
  bool lookUp(const IpAddress& address, std::optional<Route>& result);

 private:
  struct Link {
    std::string name;
    std::uint16_t type = 0;
    bool isUsable = false;
    bool isWWAN = false;
    bool operator==(const Link&) const = default;
  };
  struct DefaultRoute {
    std::uint32_t metric = 0;
    /// One for each next hop.
    std::vector<std::uint32_t> links;
    /// The next-hop object that stands for the links, where the kernel does not spell them out.
    std::uint32_t nextHop = 0;
    bool operator==(const DefaultRoute&) const = default;
  };
  using Links = std::map<std::uint32_t, Link>;
  using DefaultRoutes = std::vector<DefaultRoute>;
  using MessageHandler = std::function<void(const nlmsghdr&)>;
  struct CloseSocket {
    void operator()(mnl_socket* socket) const;
  };
  using Socket = std::unique_ptr<mnl_socket, CloseSocket>;

  RouteTable(Socket watch, Socket requests);
  static Socket openWatch();
  static Socket openRequests();

  bool drain();
  bool read(Links& links, DefaultRoutes& routes);
  bool readLinks(Links& links);
  bool readDefaultRoutes(int family, DefaultRoutes& routes);
  bool readNextHop(std::uint32_t id, std::vector<std::uint32_t>& links);
  bool exchange(nlmsghdr& request, const MessageHandler& handle);

  static std::optional<DefaultRoute> defaultRouteOf(const nlmsghdr& message);
  void addLink(const nlmsghdr& message, Links& links) const;

  const Socket _watch;
  const Socket _requests;
  std::uint32_t _sequence = 0;
  std::vector<char> _answer;
  bool _mustRead = false;
  /// The kernel answered the last exchange, be it by an error.
  bool _isAnswered = false;
  Links _links;
  DefaultRoutes _defaultRoutes;
};

}  // namespace orbiq
