#pragma once

#include <cstddef>
#include <cstdint>

namespace orbiq {

/// Stores the `size` low bytes of a number, most significant first, and returns the place behind.
inline char* storeBigEndian(char* place, std::uint64_t number, std::size_t size) {
  for (std::size_t shift = 8 * size; shift != 0;)
    *place++ = static_cast<char>(number >> (shift -= 8));
  return place;
}

/// The number of `size` bytes that stands there.
inline std::uint64_t loadBigEndian(const char* place, std::size_t size) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < size; ++i)
    number = number << 8 | static_cast<unsigned char>(place[i]);
  return number;
}

}  // namespace orbiq
