#include "orbiq/services/platform/AtomicFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

namespace orbiq {
namespace {

class Descriptor {
 public:
  explicit Descriptor(int number) : _number(number) {}
  ~Descriptor() {
    if (_number >= 0) ::close(_number);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int number() const { return _number; }
  /// Some file systems tell of a failed write only here.
  int close() {
    const int result = ::close(_number);
    _number = -1;
    return result == 0 ? 0 : errno;
  }

 private:
  int _number;
};

int writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

int openNew(const std::string& path) {
  return open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
}

int writeSpare(const std::string& path, std::string_view bytes, bool synced) {
  int opened = openNew(path);
  // A leftover, or somebody else's: in any case not to be written into.
  if (opened < 0 && errno == EEXIST && unlink(path.c_str()) == 0) opened = openNew(path);
  Descriptor file(opened);
  if (file.number() < 0) return errno;
  if (const int failed = writeAll(file.number(), bytes); failed != 0) return failed;
  if (synced && fdatasync(file.number()) != 0) return errno;
  return file.close();
}

int syncDirectoryOf(const std::string& path) {
  const std::string directory = path.substr(0, path.rfind('/') + 1);
  const Descriptor opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return opened.number() >= 0 && fsync(opened.number()) == 0 ? 0 : errno;
}

}  // namespace

int replaceFile(const std::string& path, std::string_view bytes, bool synced) {
  const std::string spare = path + ".new";
  int failed = writeSpare(spare, bytes, synced);
  if (failed == 0 && std::rename(spare.c_str(), path.c_str()) != 0) failed = errno;
  if (failed != 0) {
    unlink(spare.c_str());
    return failed;
  }
  return synced ? syncDirectoryOf(path) : 0;
}

int syncFile(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (file.number() < 0 || fdatasync(file.number()) != 0) return errno;
  return syncDirectoryOf(path);
}

std::optional<std::string> readFile(const std::string& path, std::size_t limit) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (file.number() < 0 || fstat(file.number(), &status) != 0) return std::nullopt;
  if (!S_ISREG(status.st_mode) || static_cast<std::size_t>(status.st_size) > limit) {
    return std::nullopt;
  }
  std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
  std::size_t filled = 0;
  while (filled < bytes.size()) {
    const ssize_t count = ::read(file.number(), bytes.data() + filled, bytes.size() - filled);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return std::nullopt;
    filled += static_cast<std::size_t>(count);
  }
  return bytes;
}

FileLock::State FileLock::tryLock(const std::string& path) {
  if (_state == State::Held || _state == State::HeldByAnother) return _state;
  const int file = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
  if (file < 0) {
    _failure = errno;
    return _state = State::Failed;
  }
  struct flock whole {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  if (fcntl(file, F_SETLK, &whole) == 0) return _state = State::Held;  // stays open for good
  _failure = errno;
  ::close(file);
  return _state = _failure == EACCES || _failure == EAGAIN ? State::HeldByAnother : State::Failed;
}

}  // namespace orbiq
