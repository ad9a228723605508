#include "orbiq/services/platform/archive/PageMemory.h"

#include <sys/mman.h>

#include <new>

namespace orbiq {
namespace {

/// Of less, the rest of a last page would be too large a part.
constexpr std::size_t kLarge = 16'384;

}  // namespace

void* allocatePages(std::size_t bytes) {
  if (bytes < kLarge) return ::operator new(bytes);
  void* const memory =
      mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  return memory;
}

void freePages(void* memory, std::size_t bytes) noexcept {
  if (bytes < kLarge) {
    ::operator delete(memory);
  } else {
    munmap(memory, bytes);
  }
}

}  // namespace orbiq
