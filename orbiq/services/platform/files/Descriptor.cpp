#include "orbiq/services/platform/files/Descriptor.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "orbiq/services/platform/threads/Mutex.h"

namespace orbiq {
namespace {

constinit Mutex holdersLock;
int holders ORBIQ_GUARDED_BY(holdersLock) = 0;
bool isHeld[STDERR_FILENO + 1] ORBIQ_GUARDED_BY(holdersLock) = {};

/// The host may have opened a file of its own in a number's place.
bool isStillOurs(int number) {
  return fcntl(number, F_GETFD) == FD_CLOEXEC && (fcntl(number, F_GETFL) & O_PATH) != 0;
}

}  // namespace

StandardNumbersHeld::StandardNumbersHeld() {
  const CancellationHeld held;
  const Lock lock(holdersLock);
  ++holders;
  int number = 0;
  do {
    number = open("/", O_PATH | O_CLOEXEC);
    if (number >= 0 && number <= STDERR_FILENO) isHeld[number] = true;
  } while (number >= 0 && number <= STDERR_FILENO);
  if (number >= 0) ::close(number);
}

StandardNumbersHeld::~StandardNumbersHeld() {
  const CancellationHeld held;
  const Lock lock(holdersLock);
  if (--holders > 0) return;
  for (int number = 0; number <= STDERR_FILENO; ++number) {
    if (std::exchange(isHeld[number], false) && isStillOurs(number)) ::close(number);
  }
}

Descriptor createFile(int directory, const std::string& name) {
  if (unlinkat(directory, name.c_str(), 0) != 0 && errno != ENOENT) return {};
  return Descriptor(openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
}

int writeAll(const Descriptor& file, std::string_view bytes, std::size_t from) {
  while (from < bytes.size()) {
    const ssize_t count =
        ::pwrite(file.number(), bytes.data() + from, bytes.size() - from, static_cast<off_t>(from));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    from += static_cast<std::size_t>(count);
  }
  return 0;
}

std::optional<std::string> readAll(const Descriptor& file, std::size_t limit) {
  constexpr std::size_t kChunk = 65'536;
  std::string bytes;
  // At once where the size is known, or a large file would stand twice in memory while it grows.
  struct stat status{};
  if (fstat(file.number(), &status) == 0 && status.st_size > 0) {
    bytes.reserve(std::min(static_cast<std::size_t>(status.st_size), limit) + kChunk);
  }
  for (;;) {
    const std::size_t filled = bytes.size();
    if (filled > limit) {
      errno = EFBIG;
      return std::nullopt;
    }
    bytes.resize(filled + kChunk);
    const ssize_t count = ::read(file.number(), bytes.data() + filled, kChunk);
    if (count < 0 && errno != EINTR) return std::nullopt;
    bytes.resize(filled + (count > 0 ? static_cast<std::size_t>(count) : 0));
    if (count == 0) return bytes;
  }
}

}  // namespace orbiq
