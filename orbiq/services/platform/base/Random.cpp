#include "orbiq/services/platform/base/Random.h"

#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <random>
#include <span>

#include "orbiq/services/platform/base/ForkGuard.h"

namespace orbiq {
namespace {

/// At most 256 bytes.
void fillRandom(std::span<std::byte> bytes) {
  if (getentropy(bytes.data(), bytes.size()) == 0) return;
  // A sandbox that forbids the call: the library's own source is the next best.
  std::random_device source;
  for (std::byte& byte : bytes) byte = static_cast<std::byte>(source());
}

/// A thread's store: asking the kernel for one number costs more than composing a hit.
struct Store {
  std::array<std::byte, 64 * sizeof(std::uint32_t)> bytes;
  std::size_t left = 0;
};

}  // namespace

std::uint32_t randomUint32() {
  thread_local constinit Store store{};
  std::uint32_t value = 0;
  if (store.left == 0) {
    armForkGuard();  // a forked child has the same in store, so it must keep still
    fillRandom(store.bytes);
    store.left = store.bytes.size();
  }
  store.left -= sizeof value;
  std::memcpy(&value, store.bytes.data() + store.left, sizeof value);
  return value;
}

std::string randomUuid() {
  std::array<std::uint32_t, 4> words;
  fillRandom(std::as_writable_bytes(std::span(words)));
  constexpr unsigned kVersionBits = 0x4000;
  constexpr unsigned kVariant = 0x8000;
  char text[37];
  std::snprintf(text, sizeof text, "%08X-%04X-%04X-%04X-%04X%08X", words[0], words[1] >> 16,
                (words[1] & 0x0FFF) | kVersionBits, (words[2] >> 18) | kVariant, words[2] & 0xFFFF,
                words[3]);
  return text;
}

}  // namespace orbiq
