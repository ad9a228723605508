#include "orbiq/services/platform/RouteTable.h"

#include <libmnl/libmnl.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <string_view>
#include <system_error>
#include <utility>

namespace orbiq {
namespace {

constexpr std::size_t kAnswerSize = 32768;
constexpr int kReadAttempts = 5;
constexpr std::uint16_t kRawIpLink = 519;  // ARPHRD_RAWIP, which older kernel headers lack

/// The answer of the kernel never waits for anything else; the limit is against a lost one.
constexpr timeval kAnswerTimeout{2, 0};

bool startsWith(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

/// True if sysfs calls the link a WWAN device. The number is compared because sysfs may show the
/// links of another network namespace.
bool hasWWANDeviceType(std::uint32_t index, const std::string& name) {
  std::ifstream file("/sys/class/net/" + name + "/uevent");
  bool isSameLink = false;
  bool isWWAN = false;
  for (std::string line; std::getline(file, line);) {
    isSameLink |= line == "IFINDEX=" + std::to_string(index);
    isWWAN |= line == "DEVTYPE=wwan";
  }
  return isSameLink && isWWAN;
}

bool isWWANLink(std::uint32_t index, const std::string& name, std::uint16_t type) {
  return type == kRawIpLink || type == ARPHRD_PPP || startsWith(name, "wwan") ||
         startsWith(name, "rmnet") || startsWith(name, "ppp") || hasWWANDeviceType(index, name);
}

/// The attributes of a message, by number; those beyond the highest that any reader asks for are
/// left out, and so is one that is too short to be a number where a number is read from it.
class Attributes {
 public:
  static constexpr std::size_t kCount = RTA_MAX + 1;
  static_assert(kCount > IFLA_IFNAME && kCount > NHA_OIF);

  Attributes(const nlmsghdr& message, std::size_t headerSize) {
    const auto* const end = static_cast<const char*>(mnl_nlmsg_get_payload_tail(&message));
    const auto* attribute =
        static_cast<const nlattr*>(mnl_nlmsg_get_payload_offset(&message, headerSize));
    for (; mnl_attr_ok(attribute, static_cast<int>(end - reinterpret_cast<const char*>(attribute)));
         attribute = mnl_attr_next(attribute)) {
      const std::uint16_t type = mnl_attr_get_type(attribute);
      if (type < kCount) _all[type] = attribute;
    }
  }

  const nlattr* operator[](std::size_t type) const { return _all[type]; }
  std::uint32_t number(std::size_t type) const {
    const nlattr* const attribute = _all[type];
    return attribute && mnl_attr_get_payload_len(attribute) >= sizeof(std::uint32_t)
               ? mnl_attr_get_u32(attribute)
               : 0;
  }

 private:
  std::array<const nlattr*, kCount> _all{};
};

/// A request in a buffer of its own.
struct Request {
  explicit Request(std::uint16_t type, std::uint16_t flags)
      : header(*mnl_nlmsg_put_header(buffer)) {
    header.nlmsg_type = type;
    header.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
  }
  template <class Header>
  Header& body() {
    return *static_cast<Header*>(mnl_nlmsg_put_extra_header(&header, sizeof(Header)));
  }

  alignas(nlmsghdr) char buffer[256] = {};
  nlmsghdr& header;
};

}  // namespace

void RouteTable::CloseSocket::operator()(mnl_socket* socket) const { mnl_socket_close(socket); }

RouteTable::Socket RouteTable::openWatch() {
  Socket socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0) return nullptr;
  for (int group : {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV6_IFADDR,
                    RTNLGRP_IPV6_ROUTE}) {
    if (mnl_socket_setsockopt(socket.get(), NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0) {
      return nullptr;
    }
  }
  // Not every kernel has these, and little is lost without them.
  for (int group : {RTNLGRP_IPV4_RULE, RTNLGRP_IPV6_RULE, RTNLGRP_NEXTHOP}) {
    mnl_socket_setsockopt(socket.get(), NETLINK_ADD_MEMBERSHIP, &group, sizeof group);
  }
  return socket;
}

RouteTable::Socket RouteTable::openRequests() {
  Socket socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
  if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0 ||
      setsockopt(mnl_socket_get_fd(socket.get()), SOL_SOCKET, SO_RCVTIMEO, &kAnswerTimeout,
                 sizeof kAnswerTimeout) != 0) {
    return nullptr;
  }
  return socket;
}

std::unique_ptr<RouteTable> RouteTable::open(std::string& failure) {
  const auto fail = [&failure](const char* what) {
    failure = std::string(what) + ": " + std::generic_category().message(errno);
    return nullptr;
  };
  Socket watch = openWatch();
  if (!watch) return fail("the netlink watch socket cannot be opened");
  Socket requests = openRequests();
  if (!requests) return fail("the netlink request socket cannot be opened");
  std::unique_ptr<RouteTable> table(new RouteTable(std::move(watch), std::move(requests)));
  table->_mustRead = !table->read(table->_links, table->_defaultRoutes);
  // A network that is changing all the time can be read later.
  if (table->_mustRead && errno != EINTR && errno != ENOENT && errno != EAGAIN) {
    return fail("links and routes cannot be read");
  }
  return table;
}

RouteTable::RouteTable(Socket watch, Socket requests)
    : _watch(std::move(watch)), _requests(std::move(requests)), _answer(kAnswerSize) {}

RouteTable::~RouteTable() = default;

int RouteTable::watchDescriptor() const { return mnl_socket_get_fd(_watch.get()); }

bool RouteTable::drain() {
  bool somethingCame = false;
  for (;;) {
    // What a report says does not matter: everything is read again. So one byte of it will do.
    char byte;
    if (recv(watchDescriptor(), &byte, sizeof byte, MSG_DONTWAIT) < 0) {
      if (errno == EAGAIN) return somethingCame;
      if (errno == EINTR) continue;
      if (errno != ENOBUFS) return true;
    }
    somethingCame = true;
  }
}

RouteTable::Refresh RouteTable::refresh() {
  const bool somethingCame = drain();
  if (!somethingCame && !_mustRead) return {};
  Links links;
  DefaultRoutes routes;
  _mustRead = !read(links, routes);
  if (_mustRead) return {true, false};
  const bool isChanged = links != _links || routes != _defaultRoutes;
  _links = std::move(links);
  _defaultRoutes = std::move(routes);
  return {true, isChanged};
}

bool RouteTable::read(Links& links, DefaultRoutes& routes) {
  // A change in the middle of a reading breaks it off.
  for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
    links.clear();
    routes.clear();
    bool isComplete =
        readLinks(links) && readDefaultRoutes(AF_INET, routes) &&
        (readDefaultRoutes(AF_INET6, routes) || errno == EAFNOSUPPORT || errno == EOPNOTSUPP);
    for (DefaultRoute& route : routes) {
      if (isComplete && route.links.empty() && route.nextHop != 0) {
        isComplete = readNextHop(route.nextHop, route.links);
      }
    }
    if (isComplete) return true;
    if (errno != EINTR && errno != ENOENT) return false;
  }
  return false;
}

bool RouteTable::readLinks(Links& links) {
  Request request(RTM_GETLINK, NLM_F_DUMP);
  request.body<ifinfomsg>().ifi_family = AF_UNSPEC;
  mnl_attr_put_u32(&request.header, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
  return exchange(request.header, [&](const nlmsghdr& message) { addLink(message, links); });
}

void RouteTable::addLink(const nlmsghdr& message, Links& links) const {
  if (message.nlmsg_type != RTM_NEWLINK ||
      mnl_nlmsg_get_payload_len(&message) < sizeof(ifinfomsg)) {
    return;
  }
  const auto& body = *static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(&message));
  const Attributes attributes(message, sizeof body);
  const auto index = static_cast<std::uint32_t>(body.ifi_index);
  constexpr unsigned kNeeded = IFF_UP | IFF_RUNNING;

  Link link;
  if (const nlattr* name = attributes[IFLA_IFNAME]) {
    link.name.assign(mnl_attr_get_str(name),
                     strnlen(mnl_attr_get_str(name), mnl_attr_get_payload_len(name)));
  }
  link.type = body.ifi_type;
  link.isUsable = (body.ifi_flags & kNeeded) == kNeeded;
  const auto known = _links.find(index);
  link.isWWAN =
      known != _links.end() && known->second.name == link.name && known->second.type == link.type
          ? known->second.isWWAN
          : isWWANLink(index, link.name, link.type);
  links[index] = std::move(link);
}

bool RouteTable::readDefaultRoutes(int family, DefaultRoutes& routes) {
  Request request(RTM_GETROUTE, NLM_F_DUMP);
  request.body<rtmsg>().rtm_family = static_cast<unsigned char>(family);
  return exchange(request.header, [&](const nlmsghdr& message) {
    if (auto route = defaultRouteOf(message)) routes.push_back(std::move(*route));
  });
}

std::optional<RouteTable::DefaultRoute> RouteTable::defaultRouteOf(const nlmsghdr& message) {
  if (message.nlmsg_type != RTM_NEWROUTE || mnl_nlmsg_get_payload_len(&message) < sizeof(rtmsg)) {
    return std::nullopt;
  }
  const auto& body = *static_cast<const rtmsg*>(mnl_nlmsg_get_payload(&message));
  if (body.rtm_dst_len != 0 || body.rtm_type != RTN_UNICAST || (body.rtm_flags & RTM_F_CLONED)) {
    return std::nullopt;
  }
  const Attributes attributes(message, sizeof body);
  DefaultRoute route;
  route.metric = attributes.number(RTA_PRIORITY);
  route.nextHop = attributes.number(RTA_NH_ID);
  if (const std::uint32_t link = attributes.number(RTA_OIF)) route.links.push_back(link);
  if (const nlattr* hops = attributes[RTA_MULTIPATH]) {
    auto left = static_cast<std::size_t>(mnl_attr_get_payload_len(hops));
    const auto* at = static_cast<const char*>(mnl_attr_get_payload(hops));
    while (left >= sizeof(rtnexthop)) {
      const auto& hop = *reinterpret_cast<const rtnexthop*>(at);
      const std::size_t size = RTNH_ALIGN(hop.rtnh_len);
      if (hop.rtnh_len < sizeof hop || hop.rtnh_len > left) break;
      route.links.push_back(static_cast<std::uint32_t>(hop.rtnh_ifindex));
      at += std::min(size, left);
      left -= std::min(size, left);
    }
  }
  return route;
}

bool RouteTable::readNextHop(std::uint32_t id, std::vector<std::uint32_t>& links) {
  Request request(RTM_GETNEXTHOP, 0);
  request.body<nhmsg>();
  mnl_attr_put_u32(&request.header, NHA_ID, id);
  std::vector<std::uint32_t> members;
  const bool isKnown = exchange(request.header, [&](const nlmsghdr& message) {
    const Attributes attributes(message, sizeof(nhmsg));
    if (attributes[NHA_BLACKHOLE]) return;
    if (const std::uint32_t link = attributes.number(NHA_OIF)) links.push_back(link);
    const nlattr* const group = attributes[NHA_GROUP];
    if (!group) return;
    std::vector<nexthop_grp> entries(mnl_attr_get_payload_len(group) / sizeof(nexthop_grp));
    std::memcpy(entries.data(), mnl_attr_get_payload(group), entries.size() * sizeof entries[0]);
    for (const nexthop_grp& entry : entries) members.push_back(entry.id);
  });
  // A group holds no groups.
  for (const std::uint32_t member : members) {
    if (!readNextHop(member, links)) return false;
  }
  return isKnown;
}

std::optional<Route> RouteTable::defaultRoute() const {
  const DefaultRoute* best = nullptr;
  const Link* over = nullptr;
  for (const DefaultRoute& route : _defaultRoutes) {
    if (best && best->metric <= route.metric) continue;
    for (const std::uint32_t index : route.links) {
      const auto link = _links.find(index);
      if (link == _links.end() || !link->second.isUsable) continue;
      best = &route;
      over = &link->second;
      break;
    }
  }
  if (!best) return std::nullopt;
  return Route{Route::Kind::kGateway, over->isWWAN};
}

bool RouteTable::lookUp(const IpAddress& address, std::optional<Route>& result) {
  const std::size_t size = address.family == AF_INET ? 4 : 16;
  Request request(RTM_GETROUTE, 0);
  rtmsg& body = request.body<rtmsg>();
  body.rtm_family = static_cast<unsigned char>(address.family);
  body.rtm_dst_len = static_cast<unsigned char>(8 * size);
  mnl_attr_put(&request.header, RTA_DST, size, address.bytes.data());
  if (address.link != 0) mnl_attr_put_u32(&request.header, RTA_OIF, address.link);

  result.reset();
  exchange(request.header, [&](const nlmsghdr& message) {
    if (message.nlmsg_type != RTM_NEWROUTE || mnl_nlmsg_get_payload_len(&message) < sizeof(rtmsg)) {
      return;
    }
    const auto& found = *static_cast<const rtmsg*>(mnl_nlmsg_get_payload(&message));
    const Attributes attributes(message, sizeof found);
    const auto link = _links.find(attributes.number(RTA_OIF));
    if (link == _links.end() || !link->second.isUsable) return;
    switch (found.rtm_type) {
      case RTN_LOCAL:
        result = Route{Route::Kind::kLocal, false};
        return;
      case RTN_UNICAST:
      case RTN_BROADCAST:  // older kernels answer so for the first address of a network
      case RTN_ANYCAST:
      case RTN_MULTICAST:
        result = Route{attributes[RTA_GATEWAY] || attributes[RTA_VIA] ? Route::Kind::kGateway
                                                                      : Route::Kind::kOnLink,
                       link->second.isWWAN};
        return;
      default:  // blackhole, unreachable, prohibit
        return;
    }
  });
  return _isAnswered;
}

bool RouteTable::exchange(nlmsghdr& request, const MessageHandler& handle) {
  request.nlmsg_seq = ++_sequence;
  _isAnswered = false;
  if (mnl_socket_sendto(_requests.get(), &request, request.nlmsg_len) < 0) return false;
  bool isBrokenOff = false;
  for (;;) {
    const ssize_t received = mnl_socket_recvfrom(_requests.get(), _answer.data(), _answer.size());
    if (received < 0 && errno == EINTR) continue;
    if (received < 0) return false;
    int left = static_cast<int>(received);
    for (auto* message = reinterpret_cast<const nlmsghdr*>(_answer.data());
         mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) {
      // What an earlier exchange that failed has left behind.
      if (message->nlmsg_seq != _sequence) continue;
      _isAnswered = true;
      isBrokenOff |= (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
      if (message->nlmsg_type == NLMSG_ERROR) {
        const auto* error = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(message));
        errno = mnl_nlmsg_get_payload_len(message) < sizeof *error ? EBADMSG : -error->error;
        return errno == 0;
      }
      if (message->nlmsg_type == NLMSG_DONE) {
        errno = isBrokenOff ? EINTR : 0;
        return !isBrokenOff;
      }
      handle(*message);
      if (!(message->nlmsg_flags & NLM_F_MULTI)) return true;
    }
  }
}

}  // namespace orbiq
