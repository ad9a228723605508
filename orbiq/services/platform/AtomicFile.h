#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace orbiq {

/// Replaces a file whole, mode 0600: whoever reads it, and whatever ends this process, finds the
/// old bytes or the new ones. `synced`: returns only when the disk has them. Returns 0 or the error
/// number; then the old file stands, or the new one, if only the disk's word for it is missing.
int replaceFile(const std::string& path, std::string_view bytes, bool synced);

/// Brings a file that was replaced without `synced` to the disk. Returns 0 or the error number.
int syncFile(const std::string& path);

/// The bytes of a regular file of at most `limit` bytes; no value for anything else.
std::optional<std::string> readFile(const std::string& path, std::size_t limit);

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
