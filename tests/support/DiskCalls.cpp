#include "tests/support/DiskCalls.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>

#include "orbiq/services/platform/threads/Mutex.h"

namespace orbiq::test {
namespace {

// Never destroyed: threads may sync until the very end.
Condition& changed = *new Condition;
DiskCalls calls ORBIQ_GUARDED_BY(changed);
std::atomic<bool> flushesFail = false;
std::atomic<bool> nextLookFails = false;

int sync(long number, int file) {
  const long result = syscall(number, file);
  const int error = errno;
  struct stat status{};
  const bool isDirectory = fstat(file, &status) == 0 && S_ISDIR(status.st_mode);
  {
    const Lock lock(changed);
    ++(isDirectory ? calls.directories : calls.files);
    changed.broadcast();
  }
  errno = error;
  return static_cast<int>(result);
}

}  // namespace

DiskCalls DiskCalls::soFar() {
  const Lock lock(changed);
  return calls;
}

bool DiskCalls::waitForFiles(std::size_t count) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  const Lock lock(changed);
  while (calls.files < count) {
    if (!changed.waitFor(deadline - std::chrono::steady_clock::now())) return false;
  }
  return true;
}

void DiskCalls::failFlushes(bool fail) { flushesFail = fail; }
void DiskCalls::failNextLook() { nextLookFails = true; }

}  // namespace orbiq::test

// These take the C library's place for the whole program.
#define ORBIQ_REPLACES extern "C" __attribute__((visibility("default")))

ORBIQ_REPLACES int fsync(int file) { return orbiq::test::sync(SYS_fsync, file); }
ORBIQ_REPLACES int fdatasync(int file) { return orbiq::test::sync(SYS_fdatasync, file); }
ORBIQ_REPLACES int lstat(const char* name, struct stat* status) noexcept {
  if (!orbiq::test::nextLookFails.exchange(false)) {
    return fstatat(AT_FDCWD, name, status, AT_SYMLINK_NOFOLLOW);
  }
  errno = ENOMEM;
  return -1;
}
ORBIQ_REPLACES int dup(int file) noexcept {
  if (orbiq::test::flushesFail) return 1 << 30;  // nothing that could be closed
  return static_cast<int>(syscall(SYS_dup, file));
}
