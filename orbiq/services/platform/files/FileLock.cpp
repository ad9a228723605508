#include "orbiq/services/platform/files/FileLock.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>

#include <utility>

#include "orbiq/services/platform/base/UntilDone.h"
#include "orbiq/services/platform/files/Descriptor.h"
#include "orbiq/services/platform/threads/Mutex.h"

namespace orbiq {
namespace {

constexpr int kMostTries = 3;

/// Returns 0 or the error number.
struct flock firstByte() {
  struct flock first{};
  first.l_type = F_WRLCK;
  first.l_whence = SEEK_SET;
  first.l_len = 1;
  return first;
}

/// EACCES is also what security modules say to who may not lock at all.
bool hasHolder(const Descriptor& file) {
  struct flock first = firstByte();
  return fcntl(file.number(), F_OFD_GETLK, &first) == 0 && first.l_type != F_UNLCK;
}

int tryToLock(const Descriptor& file) {
  struct flock first = firstByte();
  // Of the open file, so that it goes only with this descriptor. It excludes the process's kind of
  // lock as well, which stands in for it where the system has no other.
  int failed = fcntl(file.number(), F_OFD_SETLK, &first) == 0 ? 0 : errno;
  if (failed == EINVAL) failed = fcntl(file.number(), F_SETLK, &first) == 0 ? 0 : errno;
  if (failed != 0) return failed;
  // The rest by the process, only to tell who asks which one it is.
  struct flock rest{};
  rest.l_type = F_WRLCK;
  rest.l_whence = SEEK_SET;
  rest.l_start = 1;
  fcntl(file.number(), F_SETLK, &rest);
  return 0;
}

}  // namespace

/// Those that there are. A child that is forked would keep what is locked beyond this process's
/// end, and lets go of it therefore.
struct FileLock::All {
  static constinit Mutex protector;
  static constinit FileLock* first ORBIQ_GUARDED_BY(protector);

  static void beforeFork() ORBIQ_ACQUIRE(protector) { protector.lock(); }
  static void afterFork() ORBIQ_RELEASE(protector) { protector.unlock(); }
  static void inForkedChild() ORBIQ_RELEASE(protector) {
    for (FileLock* lock = first; lock != nullptr; lock = lock->_next) lock->_file = {};
    protector.unlock();
  }
};

constinit Mutex FileLock::All::protector;
constinit FileLock* FileLock::All::first = nullptr;

FileLock::FileLock(std::string path) : _path(std::move(path)) {
  untilDone(
      [] { return pthread_atfork(All::beforeFork, All::afterFork, All::inForkedChild) == 0; });
  const Lock guard(All::protector);
  _next = std::exchange(All::first, this);
}

FileLock::~FileLock() {
  const Lock guard(All::protector);
  FileLock** place = &All::first;
  while (*place != this) place = &(*place)->_next;
  *place = _next;
}

FileLock::State FileLock::hold() {
  if (_state == State::HeldByAnother) return _state;
  // Again after locking: the file may have lost its name in between.
  for (int tries = 0; !hasTheName(); ++tries) {
    if (tries == kMostTries) return fail(EBUSY);
    if (lock() != State::Held) return _state;
  }
  return _state = State::Held;
}

bool FileLock::hasTheName() {
  if (!_file.isOpen()) return false;
  struct stat found{};
  // Another descriptor of the file would find it locked, by this one. So what cannot be looked at
  // for now is not taken for gone.
  if (lstat(_path.c_str(), &found) != 0) return errno != ENOENT && errno != ENOTDIR;
  const auto isFound = [&] {
    return found.st_dev == _opened.st_dev && found.st_ino == _opened.st_ino;
  };
  // Some file systems give an open file another number.
  return isFound() || (fstat(_file.number(), &_opened) == 0 && isFound());
}

FileLock::State FileLock::lock() {
  const Lock guard(All::protector);  // a child that is forked meanwhile must find what to let go of
  Descriptor file(
      open(_path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
  struct stat opened{};
  // What is locked already stays so, until it is clear who has the new file.
  if (!file.isOpen() || fstat(file.number(), &opened) != 0) return fail(errno);
  const int failure = tryToLock(file);
  const bool isHeldByAnother = failure == EAGAIN || (failure == EACCES && hasHolder(file));
  if (failure != 0 && !isHeldByAnother) return fail(failure);
  _file = isHeldByAnother ? Descriptor() : std::move(file);
  _opened = opened;
  return _state = isHeldByAnother ? State::HeldByAnother : State::Held;
}

FileLock::State FileLock::fail(int failure) {
  _failure = failure;
  return _state = State::Failed;
}

}  // namespace orbiq
