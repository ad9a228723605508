#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace orbiq {

/// Stores the low bytes of `number`, most significant first, and returns the place behind them.
template <std::size_t kSize>
char* storeBigEndian(char* place, std::uint64_t number) {
  for (std::size_t i = 0; i < kSize; ++i) {
    place[i] = static_cast<char>(number >> (8 * (kSize - 1 - i)));
  }
  return place + kSize;
}

/// The number as it is in memory if its most significant byte comes first, and the other way round.
constexpr std::uint16_t bigEndian16(std::uint16_t number) {
  if constexpr (std::endian::native == std::endian::big) return number;
  return static_cast<std::uint16_t>(number << 8 | number >> 8);
}
constexpr std::uint32_t bigEndian32(std::uint32_t number) {
  if constexpr (std::endian::native == std::endian::big) return number;
  return __builtin_bswap32(number);
}

}  // namespace orbiq
