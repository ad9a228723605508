#include "orbiq/services/platform/base/Random.h"

#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <random>
#include <span>

#include "orbiq/services/platform/base/ForkGuard.h"

namespace orbiq {
namespace {

/// At most 256 bytes.
void fillRandom(std::span<unsigned char> bytes) {
  if (getentropy(bytes.data(), bytes.size()) == 0) return;
  // A sandbox that forbids the call: the library's own source is the next best.
  std::random_device source;
  for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(source());
}

/// A thread's store: asking the kernel for one number costs more than composing a hit.
struct Store {
  std::array<unsigned char, 64 * sizeof(std::uint32_t)> bytes;
  std::size_t left = 0;
  /// What the parent of a fork has in store would come twice.
  std::uint32_t forks = 0;
};

}  // namespace

std::uint32_t randomUint32() {
  thread_local constinit Store store{};
  std::uint32_t value = 0;
  const std::uint32_t now = forkCount();
  if (store.left == 0 || store.forks != now) {
    fillRandom(store.bytes);
    store.left = watchForks() ? store.bytes.size() : sizeof value;
    store.forks = now;
  }
  store.left -= sizeof value;
  std::memcpy(&value, store.bytes.data() + store.left, sizeof value);
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
