#include "orbiq/services/platform/network/RouteLookup.h"

#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

namespace orbiq {
namespace {

constexpr int kRawIpLink = 519;  // ARPHRD_RAWIP, which older kernel headers lack
constexpr std::uint16_t kPort = 443;

/// The kernel answers while the request is sent; the limit is against a lost answer.
constexpr timeval kAnswerTimeout{2, 0};

/// Ordinary addresses, well spread, that stand for the internet. Nothing is ever sent to them.
constexpr std::array kInternet{
    IpAddress{AF_INET, {41, 77, 13, 9}},
    IpAddress{AF_INET, {151, 38, 90, 17}},
    IpAddress{AF_INET, {79, 114, 50, 21}},
    IpAddress{AF_INET, {203, 97, 66, 101}},
    IpAddress{AF_INET6, {0x24, 0x05, 0x98, 0, 0, 0x21, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x11}},
    IpAddress{AF_INET6, {0x2a, 0x02, 0x80, 0x71, 0, 0x51, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x21}},
};

int openSocket(int flags, Descriptor& socket) {
  Descriptor opened(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | flags, NETLINK_ROUTE));
  sockaddr_nl anyPort{};
  anyPort.nl_family = AF_NETLINK;
  if (!opened.isOpen() ||
      ::bind(opened.number(), reinterpret_cast<const sockaddr*>(&anyPort), sizeof anyPort) != 0 ||
      ::setsockopt(opened.number(), SOL_SOCKET, SO_RCVTIMEO, &kAnswerTimeout,
                   sizeof kAnswerTimeout) != 0) {
    return errno;
  }
  socket = std::move(opened);
  return 0;
}

template <class Value>
Value valueOf(std::string_view payload) {
  Value value{};
  std::memcpy(&value, payload.data(), std::min(sizeof value, payload.size()));
  return value;
}

/// How far what is sent from the address is answered.
enum class Source { kNone, kLink, kWorld };

Source sourceOf(std::string_view payload) {
  if (payload.size() == sizeof(in_addr)) {
    const std::uint32_t address = ntohl(valueOf<std::uint32_t>(payload));
    if (address >> 24 == IN_LOOPBACKNET) return Source::kNone;
    return address >> 16 == 0xA9FE ? Source::kLink : Source::kWorld;  // 169.254
  }
  const auto address = valueOf<in6_addr>(payload);
  if (IN6_IS_ADDR_LOOPBACK(&address)) return Source::kNone;
  return IN6_IS_ADDR_LINKLOCAL(&address) ? Source::kLink : Source::kWorld;
}

/// The errors by which the kernel says that there is no way. Any other says nothing about it.
bool isNoWay(int error) {
  return error == ENETUNREACH || error == EHOSTUNREACH || error == EACCES || error == EINVAL ||
         error == ENODEV || error == EOPNOTSUPP;
}

/// Whether sysfs calls the link a WWAN device; nothing if that cannot be read for now. The number
/// is compared because sysfs may show the links of another network namespace.
std::optional<bool> hasWWANDeviceType(int index, const char* name) {
  char path[64];
  std::snprintf(path, sizeof path, "/sys/class/net/%s/uevent", name);
  const Descriptor file(::open(path, O_RDONLY | O_CLOEXEC));
  char text[1024] = "\n";
  const ssize_t size = file.isOpen() ? ::read(file.number(), text + 1, sizeof text - 1) : -1;
  if (size < 0 && mayPass(errno)) return std::nullopt;
  const std::string_view lines(text, size > 0 ? static_cast<std::size_t>(size) + 1 : 0);
  char number[32];
  std::snprintf(number, sizeof number, "\nIFINDEX=%d\n", index);
  return lines.find("\nDEVTYPE=wwan\n") != lines.npos && lines.find(number) != lines.npos;
}

}  // namespace

bool mayPass(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS ||
         error == EINTR || error == EAGAIN;
}

int RouteSocket::open() { return openSocket(0, _socket); }

const nlmsghdr* RouteSocket::exchange(nlmsghdr& request) {
  request.nlmsg_flags = NLM_F_REQUEST;
  request.nlmsg_seq = ++_sequence;
  ssize_t size = 0;
  do {
    size = ::send(_socket.number(), &request, request.nlmsg_len, 0);
  } while (size < 0 && errno == EINTR);
  while (size >= 0) {
    size = ::recv(_socket.number(), _answer.data(), _answer.size(), 0);
    if (size < 0 && errno == EINTR) size = 0;
    const auto* const answer = reinterpret_cast<const nlmsghdr*>(_answer.data());
    // Others are what an exchange that failed has left behind.
    if (mnl_nlmsg_ok(answer, static_cast<int>(size)) && answer->nlmsg_seq == _sequence) {
      return answer;
    }
  }
  return nullptr;
}

int RouteReports::open() {
  if (const int error = _requests.open()) return error;
  Descriptor opened;
  if (const int error = openSocket(SOCK_NONBLOCK, opened)) return error;
  // Not every kernel has all of them, and little is lost without the others.
  for (const int group : {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV4_RULE,
                          RTNLGRP_IPV4_NETCONF, RTNLGRP_IPV6_IFADDR, RTNLGRP_IPV6_ROUTE,
                          RTNLGRP_IPV6_RULE, RTNLGRP_IPV6_NETCONF, RTNLGRP_NEXTHOP}) {
    const bool isJoined = ::setsockopt(opened.number(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group,
                                       sizeof group) == 0;
    if (!isJoined && group == RTNLGRP_LINK) return errno;
  }
  _watch = std::move(opened);
  return 0;
}

bool RouteReports::takeIn() {
  bool somethingCame = false;
  // What a report says does not matter, so one byte of it will do.
  char byte;
  while (::recv(_watch.number(), &byte, sizeof byte, 0) >= 0 || errno == ENOBUFS) {
    somethingCame = true;
  }
  if (!somethingCame) return true;
  // Some changes are reported before they are made. This is answered only after them.
  alignas(nlmsghdr) char buffer[64] = {};
  nlmsghdr& request = *mnl_nlmsg_put_header(buffer);
  request.nlmsg_type = RTM_GETLINK;
  static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(&request, sizeof(ifinfomsg)))->ifi_index = 1;
  return _requests.exchange(request) != nullptr;
}

/// The kernel's answer; the hops stand until the next request.
struct RouteLookup::Answer {
  unsigned type = RTN_UNREACHABLE;
  int link = 0;
  bool hasGateway = false;
  Source source = Source::kNone;
  std::int32_t expires = 0;
  std::string_view hops;
};

std::optional<Route> RouteLookup::lookUp(const IpAddress& address) {
  // The kernel takes the unspecified address for the machine itself.
  if (!address.isUnspecified()) return wayTo(address, false);
  std::optional<Route> none = Route{};
  for (const IpAddress& one : kInternet) {
    const auto way = wayTo(one, true);
    if (way && way->kind != Route::Kind::kNone) return way;
    if (!way) none.reset();
  }
  return none;
}

std::optional<Route> RouteLookup::wayTo(const IpAddress& address, bool isInternet) {
  const auto answer = requestRoute(address, 0);
  if (!answer) return std::nullopt;
  if (answer->type == RTN_LOCAL && !isInternet) return Route{Route::Kind::kLocal};
  // Older kernels call the first address of a network a broadcast.
  if (answer->type != RTN_UNICAST && answer->type != RTN_BROADCAST) return Route{};
  // The internet is no neighbour, even without a gateway.
  const bool isNeighbour = !isInternet && !answer->hasGateway;
  if (answer->source < (isNeighbour ? Source::kLink : Source::kWorld)) return Route{};
  Route route{isNeighbour ? Route::Kind::kOnLink : Route::Kind::kGateway};
  if (!leadOver(answer->link, route)) return std::nullopt;
  const bool isExpirable = address.family == AF_INET6;
  if (route.link != 0 && !isExpirable) return route;
  const auto entry = requestRoute(address, RTM_F_FIB_MATCH);
  if (!entry) return route.link == 0 ? std::nullopt : std::optional(route);
  // The kernel chooses among the hops of a route without a look at their carriers.
  for (auto hops = entry->hops; route.link == 0 && hops.size() >= sizeof(rtnexthop);) {
    const auto hop = valueOf<rtnexthop>(hops);
    if (!leadOver(hop.rtnh_ifindex, route)) return std::nullopt;
    const std::size_t size = RTNH_ALIGN(hop.rtnh_len);
    hops.remove_prefix(std::clamp(size, sizeof hop, hops.size()));
  }
  // In hundredths of a second, rounded down.
  if (isExpirable && entry->expires != 0) {
    route.lifetime = std::chrono::milliseconds(10) * (std::max(entry->expires, 0) + 2);
  }
  return route.link == 0 ? Route{} : route;
}

std::optional<RouteLookup::Answer> RouteLookup::requestRoute(const IpAddress& address,
                                                             unsigned flags) {
  const std::size_t size = address.family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
  alignas(nlmsghdr) char buffer[128] = {};
  nlmsghdr& request = *mnl_nlmsg_put_header(buffer);
  request.nlmsg_type = RTM_GETROUTE;
  auto& body = *static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(&request, sizeof(rtmsg)));
  body.rtm_family = static_cast<unsigned char>(address.family);
  body.rtm_dst_len = static_cast<unsigned char>(8 * size);
  body.rtm_flags = flags;
  mnl_attr_put(&request, RTA_DST, size, address.bytes.data());
  if (address.link != 0) mnl_attr_put_u32(&request, RTA_OIF, address.link);
  // Rules may name these.
  mnl_attr_put_u32(&request, RTA_UID, ::geteuid());
  mnl_attr_put_u8(&request, RTA_IP_PROTO, IPPROTO_TCP);
  mnl_attr_put_u16(&request, RTA_DPORT, htons(kPort));

  const nlmsghdr* const message = _requests.exchange(request);
  if (!message) return std::nullopt;
  Answer answer;
  const void* const payload = mnl_nlmsg_get_payload(message);
  if (message->nlmsg_type != RTM_NEWROUTE) {
    if (!isNoWay(-static_cast<const nlmsgerr*>(payload)->error)) return std::nullopt;
    return answer;
  }
  answer.type = static_cast<const rtmsg*>(payload)->rtm_type;
  const auto take = [](const nlattr* attribute, void* taker) {
    auto& taken = *static_cast<Answer*>(taker);
    const std::uint16_t type = mnl_attr_get_type(attribute);
    const std::string_view value(static_cast<const char*>(mnl_attr_get_payload(attribute)),
                                 mnl_attr_get_payload_len(attribute));
    if (type == RTA_OIF) taken.link = valueOf<int>(value);
    if (type == RTA_PREFSRC) taken.source = sourceOf(value);
    if (type == RTA_CACHEINFO) taken.expires = valueOf<rta_cacheinfo>(value).rta_expires;
    if (type == RTA_MULTIPATH) taken.hops = value;
    taken.hasGateway |= type == RTA_GATEWAY || type == RTA_VIA;
    return MNL_CB_OK;
  };
  mnl_attr_parse(message, sizeof(rtmsg), take, &answer);
  return answer;
}

bool RouteLookup::leadOver(int link, Route& route) {
  constexpr unsigned kNeeded = IFF_UP | IFF_RUNNING;
  const int socket = _requests.descriptor().number();
  ifreq request{};
  request.ifr_ifindex = link;
  if (::ioctl(socket, SIOCGIFNAME, &request) != 0 || ::ioctl(socket, SIOCGIFFLAGS, &request) != 0) {
    return errno == ENODEV;
  }
  const auto flags = static_cast<unsigned>(request.ifr_flags);
  if ((flags & kNeeded) != kNeeded || (flags & IFF_LOOPBACK) != 0) return true;
  if (::ioctl(socket, SIOCGIFHWADDR, &request) != 0) return errno == ENODEV;
  const int type = request.ifr_hwaddr.sa_family;
  const std::string_view name = request.ifr_name;
  if (link != _lastLink.index || name != _lastLink.name || type != _lastLink.type) {
    const bool isKnownWWAN = type == kRawIpLink || type == ARPHRD_PPP || name.starts_with("wwan") ||
                             name.starts_with("rmnet") || name.starts_with("ppp");
    const auto isWWAN = isKnownWWAN ? true : hasWWANDeviceType(link, request.ifr_name);
    if (!isWWAN) return false;
    _lastLink = {link, {}, type, *isWWAN};
    std::memcpy(_lastLink.name, request.ifr_name, sizeof _lastLink.name);
  }
  route.link = link;
  route.isWWAN = _lastLink.isWWAN;
  return true;
}

}  // namespace orbiq
