#pragma once

#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orbiq {

/// An IPv4 or IPv6 address without its port. An IPv4 address in IPv6 form is held as IPv4.
struct IpAddress {
  int family = AF_INET;
  /// In network order; IPv4 fills the first four.
  std::array<std::uint8_t, 16> bytes{};
  /// The link of a link-local IPv6 address, or 0.
  std::uint32_t link = 0;

  /// Nothing for a null pointer or another family.
  static std::optional<IpAddress> fromSocketAddress(const sockaddr* address);
  /// True for 0.0.0.0 and ::.
  bool isUnspecified() const { return bytes == decltype(bytes){}; }
  bool operator==(const IpAddress&) const = default;
};

/// The name's addresses in the resolver's order of preference; none if it found none. Waits for it.
std::vector<IpAddress> resolve(const std::string& name);

}  // namespace orbiq
