#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

namespace orbiq {

/// Memory, of the system's own pages if it is large: the system gets these back at once, while the
/// heap may keep for good what a thread of ours gave back. Throws `std::bad_alloc`.
void* allocatePages(std::size_t bytes);
/// With the size that was asked for; null does nothing.
void freePages(void* memory, std::size_t bytes) noexcept;

/// Trivial values without a first value.
template <class Value>
class PageArray {
  static_assert(std::is_trivially_copyable_v<Value>);

 public:
  PageArray() = default;
  explicit PageArray(std::size_t size)
      : _values(static_cast<Value*>(allocatePages(size * sizeof(Value)))), _size(size) {}
  ~PageArray() { freePages(_values, _size * sizeof(Value)); }
  PageArray(PageArray&& other) noexcept { swap(other); }
  PageArray& operator=(PageArray&& other) noexcept {
    PageArray taken(std::move(other));
    swap(taken);
    return *this;
  }
  PageArray(const PageArray&) = delete;
  PageArray& operator=(const PageArray&) = delete;

  Value* get() const { return _values; }
  std::size_t size() const { return _size; }

 private:
  void swap(PageArray& other) noexcept {
    std::swap(_values, other._values);
    std::swap(_size, other._size);
  }

  Value* _values = nullptr;
  std::size_t _size = 0;
};

}  // namespace orbiq
