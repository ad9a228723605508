#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

/// Annotations for clang's thread-safety analysis; nothing to other compilers.
#if defined(__clang__)
#define ORBIQ_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ORBIQ_THREAD_ANNOTATION(x)
#endif

#define ORBIQ_CAPABILITY(name) ORBIQ_THREAD_ANNOTATION(capability(name))
#define ORBIQ_SCOPED_CAPABILITY ORBIQ_THREAD_ANNOTATION(scoped_lockable)
#define ORBIQ_GUARDED_BY(lock) ORBIQ_THREAD_ANNOTATION(guarded_by(lock))
#define ORBIQ_REQUIRES(...) ORBIQ_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ORBIQ_EXCLUDES(...) ORBIQ_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ORBIQ_ACQUIRE(...) ORBIQ_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ORBIQ_RELEASE(...) ORBIQ_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

namespace orbiq {

/// A mutual-exclusion lock. Not recursive.
class ORBIQ_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ORBIQ_ACQUIRE() { _mutex.lock(); }
  void unlock() ORBIQ_RELEASE() { _mutex.unlock(); }

 protected:
  std::mutex _mutex;
};

/// A lock together with the condition that its holders wait for. Waits may end without a signal, so
/// a waiter loops over what it waits for.
class Condition : public Mutex {
 public:
  /// Lets go of the lock, sleeps until a signal, takes the lock again.
  void wait() ORBIQ_REQUIRES(this) {
    Borrowed held(_mutex);
    _condition.wait(held.lock);
  }
  /// The same, for at most `duration`; false if it passed without a signal.
  template <class Duration>
  bool waitFor(Duration duration) ORBIQ_REQUIRES(this) {
    Borrowed held(_mutex);
    return _condition.wait_for(held.lock, duration) == std::cv_status::no_timeout;
  }
  void signal() { _condition.notify_one(); }
  void broadcast() { _condition.notify_all(); }

 private:
  /// The caller's hold on the lock, as the standard's condition wants it. The caller keeps it, also
  /// where its thread is cancelled while it waits.
  struct Borrowed {
    explicit Borrowed(std::mutex& mutex) : lock(mutex, std::adopt_lock) {}
    ~Borrowed() { lock.release(); }
    Borrowed(const Borrowed&) = delete;
    Borrowed& operator=(const Borrowed&) = delete;
    std::unique_lock<std::mutex> lock;
  };

  // Not the one for any lock, whose making takes memory.
  std::condition_variable _condition;
};

/// A condition whose lock is handed over in the order in which it was asked for: who lets go of it
/// and asks again at once stands behind those who were waiting.
class ORBIQ_CAPABILITY("mutex") FairCondition {
 public:
  FairCondition() = default;
  FairCondition(const FairCondition&) = delete;
  FairCondition& operator=(const FairCondition&) = delete;

  void lock() ORBIQ_ACQUIRE() {
    std::unique_lock guard(_mutex);
    takeTurn(guard);
  }
  void unlock() ORBIQ_RELEASE() {
    const std::lock_guard guard(_mutex);
    passTurn();
  }

  /// Lets go of the lock, sleeps until a signal, takes the lock again.
  void wait() ORBIQ_REQUIRES(this) {
    std::unique_lock guard(_mutex);
    passTurn();
    _signalled.wait(guard);
    takeTurn(guard);
  }
  void signal() { _signalled.notify_one(); }

 private:
  void takeTurn(std::unique_lock<std::mutex>& guard) {
    const std::uint64_t ticket = _nextTicket++;
    while (_turn != ticket) _turnPassed.wait(guard);
  }
  void passTurn() {
    ++_turn;
    _turnPassed.notify_all();
  }

  std::mutex _mutex;
  std::condition_variable _turnPassed;
  std::condition_variable _signalled;
  std::uint64_t _nextTicket = 0;
  std::uint64_t _turn = 0;
};

/// Holds one of the locks for a scope.
template <class Lockable>
class ORBIQ_SCOPED_CAPABILITY Lock {
 public:
  explicit Lock(Lockable& lockable) ORBIQ_ACQUIRE(lockable) : _lockable(lockable) {
    _lockable.lock();
  }
  ~Lock() ORBIQ_RELEASE() { _lockable.unlock(); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  Lockable& _lockable;
};

}  // namespace orbiq
