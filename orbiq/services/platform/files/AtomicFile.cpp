#include "orbiq/services/platform/files/AtomicFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <tuple>
#include <utility>

#include "orbiq/services/platform/files/Directories.h"

namespace orbiq {

int AtomicFile::Version::create(int directory, const std::string& name) {
  _descriptor = createFile(directory, name);
  return _descriptor.isOpen() ? noteState() : errno;
}

int AtomicFile::Version::write(std::string_view bytes, bool synced) {
  const int file = _descriptor.number();
  if (_state.st_size == 0) stale = ChangedPages::all(bytes.size());
  for (auto [page, end] = stale.nextRun(0); page != end; std::tie(page, end) = stale.nextRun(end)) {
    const std::size_t upTo = std::min(end * ChangedPages::kSize, bytes.size());
    const int failed = writeAll(_descriptor, bytes.substr(0, upTo), page * ChangedPages::kSize);
    if (failed != 0) return failed;
  }
  const auto size = static_cast<off_t>(bytes.size());
  if (size < _state.st_size && ftruncate(file, size) != 0) return errno;
  if (synced && fdatasync(file) != 0) return errno;
  stale.clear();
  return noteState();
}

int AtomicFile::Version::flush() const {
  const int another = aboveStandard(dup(_descriptor.number()));
  return another < 0 || ::close(another) == 0 ? 0 : errno;
}

bool AtomicFile::Version::standsAt(int directory, const std::string& name) const {
  struct stat found{};
  return _descriptor.isOpen() &&
         fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
         found.st_dev == _state.st_dev && found.st_ino == _state.st_ino &&
         found.st_size == _state.st_size && found.st_mtim.tv_sec == _state.st_mtim.tv_sec &&
         found.st_mtim.tv_nsec == _state.st_mtim.tv_nsec;
}

int AtomicFile::Version::noteState() {
  return fstat(_descriptor.number(), &_state) == 0 ? 0 : errno;
}

AtomicFile::AtomicFile(std::string path)
    : _path(std::move(path)),
      _name(_path.substr(_path.rfind('/') + 1)),
      _spareName(_name + ".new") {}

int AtomicFile::replace(std::string_view bytes, const ChangedPages& changed, bool synced) {
  _spare.stale.add(changed);
  _current.stale.add(changed);
  const bool isOurs = _current.standsAt(AT_FDCWD, _path);
  if (!isOurs) {
    const std::string directory = _path.substr(0, _path.size() - _name.size());
    _directory = Descriptor(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!_directory.isOpen()) return errno;
  }
  if (const int failed = write(bytes, isOurs, synced); failed != 0) {
    unlinkat(_directory.number(), _spareName.c_str(), 0);
    _spare.close();
    return failed;
  }
  return synced ? syncDirectoryOf(_path) : 0;
}

int AtomicFile::write(std::string_view bytes, bool mayExchange, bool synced) {
  const int directory = _directory.number();
  const char* const name = _name.c_str();
  const char* const spare = _spareName.c_str();
  int failed = 0;
  if (!_spare.standsAt(directory, _spareName)) failed = _spare.create(directory, _spareName);
  if (failed == 0) failed = _spare.write(bytes, synced);
  if (failed != 0) return failed;
  // The faster way, for two files that are known to be ours.
  if (!mayExchange || renameat2(directory, spare, directory, name, RENAME_EXCHANGE) != 0) {
    failed = _spare.flush();
    if (failed != 0) return failed;
    if (renameat(directory, spare, directory, name) != 0) return errno;
    _current.close();
  }
  std::swap(_current, _spare);
  return 0;
}

int syncFile(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file.isOpen() || fdatasync(file.number()) != 0) return errno;
  return syncDirectoryOf(path);
}

std::optional<std::string> readFile(const std::string& path, std::size_t limit, int* failure) {
  const auto fail = [failure](int cause) -> std::optional<std::string> {
    if (failure != nullptr) *failure = cause;
    return std::nullopt;
  };
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file.isOpen()) {
    // There is none, or what has the name is no file.
    const bool isNone = errno == ENOENT || errno == ENOTDIR || errno == ELOOP || errno == ENXIO;
    return fail(isNone ? 0 : errno);
  }
  struct stat status{};
  if (fstat(file.number(), &status) != 0) return fail(errno);
  if (!S_ISREG(status.st_mode)) return fail(0);
  std::optional<std::string> bytes = readAll(file, limit);
  if (!bytes) return fail(errno);
  fail(0);
  return bytes;
}

}  // namespace orbiq
