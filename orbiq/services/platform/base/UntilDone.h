#pragma once

#include <new>

namespace orbiq {

/// Runs a lambda until it has once succeeded in this process, one thread at a time, and is true
/// from then on; false where it failed or ran out of memory, and then the next call tries again.
template <class Work>
bool untilDone(const Work& work) try {
  // Each lambda has a type of its own, and so a variable of its own, which a throw leaves unset.
  static const bool isDone = work() ? true : throw std::bad_alloc();
  return isDone;
} catch (const std::bad_alloc&) {
  return false;
}

}  // namespace orbiq
