#include "orbiq/services/platform/RouteLookup.h"

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
      ::bind(opened.number(), reinterpret_cast<const sockaddr*>(&anyPort), sizeof anyPort) != 0) {
    return errno;
  }
  socket = std::move(opened);
  return 0;
}

/// Calls `handle` with the type and the payload of each attribute.
template <class Handler>
void forEachAttribute(const nlmsghdr& message, Handler handle) {
  const auto* const end = static_cast<const char*>(mnl_nlmsg_get_payload_tail(&message));
  const auto* at =
      static_cast<const nlattr*>(mnl_nlmsg_get_payload_offset(&message, sizeof(rtmsg)));
  for (; mnl_attr_ok(at, static_cast<int>(end - reinterpret_cast<const char*>(at)));
       at = mnl_attr_next(at)) {
    handle(mnl_attr_get_type(at),
           std::string_view(static_cast<const char*>(mnl_attr_get_payload(at)),
                            mnl_attr_get_payload_len(at)));
  }
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

/// True if sysfs calls the link a WWAN device. The number is compared because sysfs may show the
/// links of another network namespace.
bool hasWWANDeviceType(int index, const char* name) {
  char path[64];
  std::snprintf(path, sizeof path, "/sys/class/net/%s/uevent", name);
  const Descriptor file(::open(path, O_RDONLY | O_CLOEXEC));
  char text[1024] = "\n";
  const ssize_t size = ::read(file.number(), text + 1, sizeof text - 1);
  const std::string_view lines(text, size > 0 ? static_cast<std::size_t>(size) + 1 : 0);
  char number[32];
  std::snprintf(number, sizeof number, "\nIFINDEX=%d\n", index);
  return lines.find("\nDEVTYPE=wwan\n") != lines.npos && lines.find(number) != lines.npos;
}

}  // namespace

int RouteSocket::open() {
  Descriptor opened;
  if (const int error = openSocket(0, opened)) return error;
  if (::setsockopt(opened.number(), SOL_SOCKET, SO_RCVTIMEO, &kAnswerTimeout,
                   sizeof kAnswerTimeout) != 0) {
    return errno;
  }
  _socket = std::move(opened);
  return 0;
}

const nlmsghdr* RouteSocket::exchange(nlmsghdr& request) {
  request.nlmsg_flags = NLM_F_REQUEST;
  request.nlmsg_seq = ++_sequence;
  if (::send(_socket.number(), &request, request.nlmsg_len, 0) < 0) return nullptr;
  for (;;) {
    const ssize_t size = ::recv(_socket.number(), _answer.data(), _answer.size(), 0);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) return nullptr;
    const auto* const answer = reinterpret_cast<const nlmsghdr*>(_answer.data());
    // Others are what an exchange that failed has left behind.
    if (mnl_nlmsg_ok(answer, static_cast<int>(size)) && answer->nlmsg_seq == _sequence) {
      return answer;
    }
  }
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

void RouteReports::takeIn() {
  bool somethingCame = false;
  // What a report says does not matter, so one byte of it will do.
  char byte;
  while (::recv(_watch.number(), &byte, sizeof byte, 0) >= 0 || errno == ENOBUFS) {
    somethingCame = true;
  }
  if (!somethingCame) return;
  // Some changes are reported before they are made. This is answered only after them.
  alignas(nlmsghdr) char buffer[64] = {};
  nlmsghdr& request = *mnl_nlmsg_put_header(buffer);
  request.nlmsg_type = RTM_GETLINK;
  static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(&request, sizeof(ifinfomsg)))->ifi_index = 1;
  _requests.exchange(request);
}

bool RouteLookup::lookUp(const IpAddress& address, std::optional<Route>& result) {
  // The kernel takes the unspecified address for the machine itself.
  if (!address.isUnspecified()) return find(address, false, result);
  bool isAnswered = true;
  for (const IpAddress& one : kInternet) {
    isAnswered &= find(one, true, result);
    if (result) return true;
  }
  return isAnswered;
}

bool RouteLookup::find(const IpAddress& address, bool isInternet, std::optional<Route>& result) {
  result.reset();
  const nlmsghdr* const answer = ask(address, 0);
  if (!answer) return false;
  // Otherwise an error: unreachable, prohibited or a black hole.
  if (answer->nlmsg_type != RTM_NEWROUTE) return true;
  const unsigned type = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(answer))->rtm_type;
  int index = 0;
  bool hasGateway = false;
  Source source = Source::kNone;
  forEachAttribute(*answer, [&](std::uint16_t attribute, std::string_view payload) {
    if (attribute == RTA_OIF) index = valueOf<int>(payload);
    if (attribute == RTA_PREFSRC) source = sourceOf(payload);
    hasGateway |= attribute == RTA_GATEWAY || attribute == RTA_VIA;
  });
  if (type == RTN_LOCAL) {
    if (!isInternet) result = Route{Route::Kind::kLocal};
    return true;
  }
  // Older kernels call the first address of a network a broadcast.
  if (type != RTN_UNICAST && type != RTN_BROADCAST) return true;
  const Source needed = isInternet || hasGateway ? Source::kWorld : Source::kLink;
  if (source < needed) return true;
  const Link* link = usableLink(index);
  if (!link) link = usableLinkOfHops(address);
  if (!link) return true;
  // The internet is no neighbour, even without a gateway.
  const bool isNeighbour = !isInternet && !hasGateway;
  result =
      Route{isNeighbour ? Route::Kind::kOnLink : Route::Kind::kGateway, link->isWWAN, link->index};
  return true;
}

std::optional<std::chrono::milliseconds> RouteLookup::expiry(const IpAddress& address) {
  std::optional<Route> route;
  if (address.isUnspecified()) {
    for (const IpAddress& one : kInternet) {
      if (!find(one, true, route) || !route) continue;
      return expiry(one);
    }
    return std::nullopt;
  }
  if (address.family != AF_INET6) return std::nullopt;
  const nlmsghdr* const answer = ask(address, RTM_F_FIB_MATCH);
  if (!answer || answer->nlmsg_type != RTM_NEWROUTE) return std::nullopt;
  std::int32_t hundredths = 0;
  forEachAttribute(*answer, [&](std::uint16_t attribute, std::string_view payload) {
    if (attribute == RTA_CACHEINFO) hundredths = valueOf<rta_cacheinfo>(payload).rta_expires;
  });
  if (hundredths == 0) return std::nullopt;
  // The kernel rounds down.
  return std::chrono::milliseconds(10) * (std::max(hundredths, 0) + 2);
}

const nlmsghdr* RouteLookup::ask(const IpAddress& address, unsigned flags) {
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
  return _requests.exchange(request);
}

const RouteLookup::Link* RouteLookup::usableLink(int index) {
  constexpr unsigned kNeeded = IFF_UP | IFF_RUNNING;
  const int socket = _requests.descriptor().number();
  ifreq request{};
  request.ifr_ifindex = index;
  if (::ioctl(socket, SIOCGIFNAME, &request) != 0 || ::ioctl(socket, SIOCGIFFLAGS, &request) != 0) {
    return nullptr;
  }
  const auto flags = static_cast<unsigned>(request.ifr_flags);
  if ((flags & kNeeded) != kNeeded || (flags & IFF_LOOPBACK) != 0) return nullptr;
  if (::ioctl(socket, SIOCGIFHWADDR, &request) != 0) return nullptr;
  const int type = request.ifr_hwaddr.sa_family;
  const std::string_view name = request.ifr_name;
  if (index == _lastLink.index && name == _lastLink.name && type == _lastLink.type) {
    return &_lastLink;
  }
  _lastLink.index = index;
  std::memcpy(_lastLink.name, request.ifr_name, sizeof _lastLink.name);
  _lastLink.type = type;
  _lastLink.isWWAN = type == kRawIpLink || type == ARPHRD_PPP || name.starts_with("wwan") ||
                     name.starts_with("rmnet") || name.starts_with("ppp") ||
                     hasWWANDeviceType(index, request.ifr_name);
  return &_lastLink;
}

/// The kernel chooses among the hops of a route without a look at their carriers.
const RouteLookup::Link* RouteLookup::usableLinkOfHops(const IpAddress& address) {
  const nlmsghdr* const answer = ask(address, RTM_F_FIB_MATCH);
  if (!answer || answer->nlmsg_type != RTM_NEWROUTE) return nullptr;
  const Link* link = nullptr;
  forEachAttribute(*answer, [&](std::uint16_t attribute, std::string_view hops) {
    if (attribute != RTA_MULTIPATH) return;
    while (!link && hops.size() >= sizeof(rtnexthop)) {
      const auto hop = valueOf<rtnexthop>(hops);
      link = usableLink(hop.rtnh_ifindex);
      const std::size_t size = RTNH_ALIGN(hop.rtnh_len);
      hops.remove_prefix(std::clamp(size, sizeof hop, hops.size()));
    }
  });
  return link;
}

}  // namespace orbiq
