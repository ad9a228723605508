#pragma once

#include <algorithm>
#include <cstddef>
#include <span>
#include <type_traits>
#include <utility>

#include "orbiq/services/platform/archive/PageMemory.h"

namespace orbiq {

/// Trivial values in one piece of memory, which grow in front and can be cut at both ends.
template <class Value>
class FrontVector {
  static_assert(std::is_trivially_copyable_v<Value>);

 public:
  std::size_t size() const { return _end - _begin; }
  Value* begin() { return _values.get() + _begin; }
  Value* end() { return _values.get() + _end; }
  const Value* begin() const { return _values.get() + _begin; }
  const Value* end() const { return _values.get() + _end; }
  Value& operator[](std::size_t index) { return begin()[index]; }
  const Value& operator[](std::size_t index) const { return begin()[index]; }

  /// Makes room for so many values in front, to be filled by the caller.
  std::span<Value> prepend(std::size_t count) {
    if (count > _begin) makeRoom(count);
    _begin -= count;
    return {begin(), count};
  }
  /// At most as many as there are.
  void dropFront(std::size_t count) { _begin += count; }
  void dropBack(std::size_t count) { _end -= count; }
  /// Gives the memory back, too.
  void clear() { *this = {}; }

  FrontVector() = default;
  FrontVector(FrontVector&& other) noexcept { swap(other); }
  FrontVector& operator=(FrontVector&& other) noexcept {
    FrontVector taken(std::move(other));
    swap(taken);
    return *this;
  }
  ~FrontVector() = default;
  FrontVector(const FrontVector&) = delete;
  FrontVector& operator=(const FrontVector&) = delete;

 private:
  void swap(FrontVector& other) noexcept {
    std::swap(_values, other._values);
    std::swap(_begin, other._begin);
    std::swap(_end, other._end);
  }

  /// Moves the values to the end of their memory, or of a larger one; seldom, since it then has
  /// room in front for an eighth of them at least.
  [[gnu::noinline]] void makeRoom(std::size_t count) {
    const std::size_t kept = size();
    const std::size_t needed = kept + count;
    if (needed + needed / 8 <= _values.size()) {
      std::copy_backward(begin(), end(), _values.get() + _values.size());
    } else {
      PageArray<Value> values(needed + needed / 4 + 16);
      std::copy_n(begin(), kept, values.get() + (values.size() - kept));
      _values = std::move(values);
    }
    _begin = _values.size() - kept;
    _end = _values.size();
  }

  PageArray<Value> _values;
  std::size_t _begin = 0;
  std::size_t _end = 0;
};

}  // namespace orbiq
