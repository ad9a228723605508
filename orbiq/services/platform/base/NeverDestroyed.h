#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace orbiq {

/// What lives as long as the process: it stands in static memory, so that making it takes none, and
/// is not destroyed at the end, when a thread may still use it.
template <class Value>
class NeverDestroyed {
 public:
  template <class... Arguments>
  explicit NeverDestroyed(Arguments&&... arguments) {
    new (_place) Value(std::forward<Arguments>(arguments)...);
  }
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;

  Value& operator*() { return *std::launder(reinterpret_cast<Value*>(_place)); }

 private:
  alignas(Value) std::byte _place[sizeof(Value)];
};

}  // namespace orbiq
