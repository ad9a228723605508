#include "orbiq/services/platform/network/IpAddress.h"

#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "orbiq/services/platform/files/Descriptor.h"

namespace orbiq {

std::optional<IpAddress> IpAddress::fromSocketAddress(const sockaddr* address) {
  if (!address) return std::nullopt;
  IpAddress result;
  if (address->sa_family == AF_INET) {
    sockaddr_in ipv4;
    std::memcpy(&ipv4, address, sizeof ipv4);
    std::memcpy(result.bytes.data(), &ipv4.sin_addr, sizeof ipv4.sin_addr);
    return result;
  }
  if (address->sa_family != AF_INET6) return std::nullopt;
  sockaddr_in6 ipv6;
  std::memcpy(&ipv6, address, sizeof ipv6);
  const std::uint8_t* const bytes = ipv6.sin6_addr.s6_addr;
  if (IN6_IS_ADDR_V4MAPPED(&ipv6.sin6_addr)) {
    std::copy_n(bytes + 12, 4, result.bytes.begin());
    return result;
  }
  result.family = AF_INET6;
  std::copy_n(bytes, 16, result.bytes.begin());
  if (IN6_IS_ADDR_LINKLOCAL(&ipv6.sin6_addr)) result.link = ipv6.sin6_scope_id;
  return result;
}

std::vector<IpAddress> resolve(const std::string& name) {
  const StandardNumbersHeld held;  // the resolver opens sockets
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* results = nullptr;
  if (getaddrinfo(name.c_str(), nullptr, &hints, &results) != 0) return {};
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owned(results, freeaddrinfo);
  std::vector<IpAddress> addresses;
  for (const addrinfo* result = results; result; result = result->ai_next) {
    const auto address = IpAddress::fromSocketAddress(result->ai_addr);
    if (address) addresses.push_back(*address);
  }
  return addresses;
}

}  // namespace orbiq
