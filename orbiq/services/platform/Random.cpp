#include "orbiq/services/platform/Random.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <random>
#include <span>

namespace orbiq {
namespace {

void fillRandom(std::span<unsigned char> bytes) {
  while (!bytes.empty()) {
    const ssize_t count = getrandom(bytes.data(), bytes.size(), 0);
    if (count > 0) {
      bytes = bytes.subspan(static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      // A sandbox that forbids the call: the library's own source is the next best.
      std::random_device source;
      for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(source());
      return;
    }
  }
}

}  // namespace

std::uint32_t randomUint32() {
  std::array<unsigned char, 4> bytes;
  fillRandom(bytes);
  std::uint32_t value = 0;
  for (const unsigned char byte : bytes) value = value << 8 | byte;
  return value;
}

std::string randomUuid() {
  std::array<unsigned char, 16> bytes;
  fillRandom(bytes);
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);

  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0x0F];
  }
  return text;
}

}  // namespace orbiq
