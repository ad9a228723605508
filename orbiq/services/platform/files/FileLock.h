#pragma once

#include <sys/stat.h>

#include <string>

#include "orbiq/services/platform/files/Descriptor.h"

namespace orbiq {

/// A lock between processes, on a file of its own, for as long as it lives. Neither closing another
/// descriptor of the file nor a child that was forked and outlives this process changes who has it.
class FileLock {
 public:
  enum class State {
    Untried,
    Held,
    HeldByAnother,
    /// The file could not be opened or locked.
    Failed,
  };

  /// Does not touch the file yet.
  explicit FileLock(std::string path);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  State state() const { return _state; }
  /// The error number of the last try that failed.
  int failure() const { return _failure; }
  /// Takes the lock, or makes sure that it is still held: where the file of that name is no longer
  /// the one that was locked, the new one is. Never waits. `HeldByAnother` is final.
  State hold();

 private:
  struct All;

  bool hasTheName();
  State lock();
  State fail(int failure);

  const std::string _path;
  Descriptor _file;
  struct stat _opened{};  ///< the locked file's
  State _state = State::Untried;
  int _failure = 0;
  FileLock* _next = nullptr;
};

}  // namespace orbiq
