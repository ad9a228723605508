#pragma once

#include <pthread.h>

#include <memory>

namespace orbiq {

/// The calling thread's own object of that type, made at the thread's first call. It outlives the
/// host's thread-local objects, whose destructors may call the library, and on the thread that ends
/// the process it is not destroyed. (The language's own thread-local objects do not, and end the
/// process where there is no memory to register them.) Null where the process has no key for it
/// left. What the making throws goes to the caller, and the next call makes it anew.
template <class Object>
Object* ofThisThread() {
  struct Key {
    pthread_key_t number{};
    const bool isThere =
        pthread_key_create(&number, [](void* own) { delete static_cast<Object*>(own); }) == 0;
  };
  static const Key key;
  if (!key.isThere) return nullptr;
  if (void* const own = pthread_getspecific(key.number)) return static_cast<Object*>(own);
  auto made = std::make_unique<Object>();
  if (pthread_setspecific(key.number, made.get()) != 0) return nullptr;
  return made.release();
}

}  // namespace orbiq
