#pragma once

#include <string>

namespace orbiq {

/// A lock between processes, on a file of its own, for as long as this process lives.
class FileLock {
 public:
  enum class State {
    Untried,
    Held,
    HeldByAnother,
    /// The file could not be opened or locked.
    Failed,
  };

  FileLock() = default;
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  State state() const { return _state; }
  /// The error number of the last try that failed.
  int failure() const { return _failure; }
  /// Tries once, without waiting. `Held` and `HeldByAnother` are final.
  State tryLock(const std::string& path);

 private:
  State _state = State::Untried;
  int _failure = 0;
};

}  // namespace orbiq
