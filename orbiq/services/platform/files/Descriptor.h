#pragma once

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "orbiq/services/platform/base/Export.h"
#include "orbiq/services/platform/threads/CancellationHeld.h"

namespace orbiq {

/// The descriptor, or in its place one above those of standard input, output and error: where the
/// host has closed these, what anybody writes there must not land in a file of the library's. Takes
/// over the one it is given; -1, with the cause in `errno`, if it is none or cannot be moved. Here,
/// as more than one library is built with it.
inline int aboveStandard(int number) {
  if (number < 0 || number > STDERR_FILENO) return number;
  const int moved = fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int failure = errno;
  ::close(number);
  errno = failure;
  return moved;
}

/// Takes the numbers of standard input, output and error for the length of a scope, as far as they
/// are free, for what opens descriptors out of our sight. They are let go with the last scope of
/// all threads and libraries. Who reads or writes there meanwhile is told that the descriptor is
/// bad, as if it were closed.
class ORBIQ_EXPORT StandardNumbersHeld {
 public:
  StandardNumbersHeld();
  ~StandardNumbersHeld();
  StandardNumbersHeld(const StandardNumbersHeld&) = delete;
  StandardNumbersHeld& operator=(const StandardNumbersHeld&) = delete;
};

/// An open file, closed with its owner.
class Descriptor {
 public:
  Descriptor() = default;
  /// Moves it above those of standard input, output and error.
  explicit Descriptor(int number) : _number(aboveStandard(number)) {}
  ~Descriptor() {
    if (!isOpen()) return;
    const CancellationHeld held;  // no thread may end within a destructor
    ::close(_number);
  }
  Descriptor(Descriptor&& other) noexcept { swap(other); }
  Descriptor& operator=(Descriptor other) noexcept {
    swap(other);
    return *this;
  }
  void swap(Descriptor& other) noexcept { std::swap(_number, other._number); }

  int number() const { return _number; }
  bool isOpen() const { return _number >= 0; }

 private:
  int _number = -1;
};

/// Makes a file (0600) for writing, in place of what has the name: a leftover, or somebody else's,
/// is not to be written into. Not open, with the cause in `errno`, if that fails.
Descriptor createFile(int directory, const std::string& name);

/// Writes the bytes from number `from` on, at their places in the file. Returns 0 or the error
/// number.
int writeAll(const Descriptor& file, std::string_view bytes, std::size_t from = 0);

/// Reads what is left of the file; no value if that fails or is more than `limit` bytes (EFBIG);
/// `errno` then says why.
std::optional<std::string> readAll(const Descriptor& file, std::size_t limit);

}  // namespace orbiq
