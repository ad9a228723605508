#pragma once

namespace orbiq {

/// The calling thread's own object of that type, made at the thread's first call. Null once it is
/// destroyed: the destructors of the host's thread-local objects, and of its static ones on the
/// thread that ends the process, come after that and may call the library. What the making throws
/// goes to the caller, and the next call makes it anew.
template <class Object>
Object* ofThisThread() {
  // Without a destructor of its own, so that it can be read to the thread's end.
  static thread_local constinit bool isGone = false;
  struct Owner {
    Object object{};
    ~Owner() { isGone = true; }
  };
  if (isGone) return nullptr;
  static thread_local Owner owner;
  return &owner.object;
}

}  // namespace orbiq
