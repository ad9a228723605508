#include "orbiq/services/platform/FileLock.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

namespace orbiq {

FileLock::State FileLock::tryLock(const std::string& path) {
  if (_state == State::Held || _state == State::HeldByAnother) return _state;
  const int file = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
  if (file < 0) {
    _failure = errno;
    return _state = State::Failed;
  }
  struct flock whole{};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  if (fcntl(file, F_SETLK, &whole) == 0) return _state = State::Held;  // stays open for good
  _failure = errno;
  ::close(file);
  return _state = _failure == EACCES || _failure == EAGAIN ? State::HeldByAnother : State::Failed;
}

}  // namespace orbiq
