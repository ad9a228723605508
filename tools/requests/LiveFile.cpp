#include "tools/requests/LiveFile.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <string_view>
#include <system_error>
#include <utility>

namespace orbiq::requests {
namespace {

// As much as the library reads.
constexpr std::size_t kLargestFile = 64U << 20U;
constexpr int kMostReadings = 100;

constexpr std::string_view kLockSuffix = ".lock";

bool isSameTime(const timespec& left, const timespec& right) {
  return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

/// `stoodStill`: nobody was seen writing meanwhile.
int read(const std::string& path, Snapshot& snapshot, bool& stoodStill) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat status{};
  if (!file.isOpen() || fstat(file.number(), &status) != 0) return errno;
  if (S_ISDIR(status.st_mode)) return EISDIR;
  if (!S_ISREG(status.st_mode)) return EINVAL;
  if (status.st_size > static_cast<off_t>(kLargestFile)) return EFBIG;
  std::optional<std::string> bytes = readAll(file, kLargestFile);
  if (!bytes) return errno;
  struct stat after{};
  // A file is written under another name. Within a tick of the kernel's clock that shows only here.
  stoodStill = stat(path.c_str(), &after) == 0 && after.st_ino == status.st_ino &&
               isSameTime(after.st_mtim, status.st_mtim);
  snapshot.bytes = std::move(*bytes);
  snapshot.changedAt = static_cast<double>(status.st_mtim.tv_sec);
  return 0;
}

Use useOf(const std::string& path) {
  const std::string lock = path + std::string(kLockSuffix);
  const Descriptor file(open(lock.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file.isOpen()) return {errno == ENOENT ? Use::State::kFree : Use::State::kUnknown, 0};
  const auto ask = [&file](struct flock& asked) {
    asked.l_type = F_WRLCK;
    asked.l_whence = SEEK_SET;
    return fcntl(file.number(), F_GETLK, &asked) == 0;
  };
  struct flock whole{};
  if (!ask(whole)) return {Use::State::kUnknown, 0};
  if (whole.l_type == F_UNLCK) return {};
  // The lock on the first byte belongs to no process, and the one on the rest says whose it is.
  struct flock rest{};
  rest.l_start = 1;
  const bool isToldBy = whole.l_pid <= 0 && ask(rest) && rest.l_type != F_UNLCK;
  const pid_t process = isToldBy ? rest.l_pid : whole.l_pid;
  return {Use::State::kInUse, process > 0 ? process : 0};
}

}  // namespace

Snapshot look(const std::string& path) {
  Snapshot snapshot;
  bool stoodStill = true;
  snapshot.failure = read(path, snapshot, stoodStill);
  for (int readings = 1; snapshot.failure == 0; ++readings) {
    const std::string earlier = std::exchange(snapshot.bytes, {});
    snapshot.failure = read(path, snapshot, stoodStill);
    snapshot.isSettled = snapshot.failure != 0 || (stoodStill && snapshot.bytes == earlier);
    if (snapshot.isSettled || readings == kMostReadings) break;
  }
  snapshot.use = useOf(path);
  return snapshot;
}

Snapshot lookAtStandardInput() {
  Snapshot snapshot;
  snapshot.use.state = Use::State::kUnknown;
  const Descriptor input(dup(STDIN_FILENO));
  std::optional<std::string> bytes = readAll(input, kLargestFile);
  if (!bytes) {
    snapshot.failure = errno;
  } else {
    snapshot.bytes = std::move(*bytes);
  }
  return snapshot;
}

FileWatch::FileWatch(const std::string& path)
    : _inotify(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)), _name(path.substr(path.rfind('/') + 1)) {
  const std::size_t slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  constexpr std::uint32_t kEvents = IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE |
                                    IN_MODIFY | IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF |
                                    IN_ONLYDIR;
  if (!_inotify.isOpen() || inotify_add_watch(_inotify.number(), directory.c_str(), kEvents) < 0) {
    throw std::system_error(errno, std::generic_category(), directory);
  }
}

bool FileWatch::wait() {
  for (;;) {
    pollfd watched[] = {{_inotify.number(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    if (poll(watched, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if ((watched[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) return false;
    bool isOfFile = false;
    if (!takeEvents(isOfFile)) return false;
    if (isOfFile) return true;
  }
}

/// All that came; false if the directory has gone.
bool FileWatch::takeEvents(bool& isOfFile) {
  alignas(inotify_event) char buffer[4096];
  ssize_t length = 0;
  while ((length = ::read(_inotify.number(), buffer, sizeof buffer)) > 0) {
    for (ssize_t at = 0; at < length;) {
      const auto* const event = reinterpret_cast<const inotify_event*>(buffer + at);
      at += static_cast<ssize_t>(sizeof *event + event->len);
      if ((event->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT)) != 0) {
        return false;
      }
      const std::string_view name(event->len > 0 ? event->name : "");
      const bool isLock = name == _name + std::string(kLockSuffix);
      isOfFile = isOfFile || name == _name || isLock || (event->mask & IN_Q_OVERFLOW) != 0;
    }
  }
  return length == 0 || errno == EAGAIN || errno == EINTR;
}

}  // namespace orbiq::requests
