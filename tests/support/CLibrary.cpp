#include "tests/support/CLibrary.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string_view>

#include "orbiq/services/platform/threads/Mutex.h"

namespace orbiq::test {
namespace {

// Never destroyed: threads may sync, and look names up, until the very end.
Condition& changed = *new Condition;
DiskCalls calls ORBIQ_GUARDED_BY(changed);
std::size_t lookups ORBIQ_GUARDED_BY(changed) = 0;
std::size_t hanging ORBIQ_GUARDED_BY(changed) = 0;
bool hang ORBIQ_GUARDED_BY(changed) = false;

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

void passThrough(const char* name) {
  const Lock lock(changed);
  ++lookups;
  if (name == nullptr || std::string_view(name) != HangingLookup::kName) return;
  ++hanging;
  changed.broadcast();
  while (hang) changed.wait();
  --hanging;
  changed.broadcast();
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

std::size_t nameLookupCount() {
  const Lock lock(changed);
  return lookups;
}

HangingLookup::HangingLookup() {
  const Lock lock(changed);
  hang = true;
}

HangingLookup::~HangingLookup() {
  const Lock lock(changed);
  hang = false;
  changed.broadcast();
  while (hanging > 0) changed.wait();
}

void HangingLookup::await() {
  const Lock lock(changed);
  while (hanging == 0) changed.wait();
}

}  // namespace orbiq::test

using orbiq::test::DiskCalls;
using orbiq::test::NetlinkFaults;

// These take the C library's place for the whole program.
#pragma GCC visibility push(default)
extern "C" {

int fsync(int file) { return orbiq::test::sync(SYS_fsync, file); }
int fdatasync(int file) { return orbiq::test::sync(SYS_fdatasync, file); }
int lstat(const char* name, struct stat* status) noexcept {
  if (!DiskCalls::nextLookFails.exchange(false)) {
    return fstatat(AT_FDCWD, name, status, AT_SYMLINK_NOFOLLOW);
  }
  errno = ENOMEM;
  return -1;
}
int dup(int file) noexcept {
  if (DiskCalls::flushesFail) return 1 << 30;  // nothing that could be closed
  return static_cast<int>(syscall(SYS_dup, file));
}

int socket(int domain, int type, int protocol) noexcept {
  const int error = domain == AF_NETLINK ? NetlinkFaults::opening.load() : 0;
  if (error == 0) return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
  errno = error;
  return -1;
}

ssize_t recv(int socket, void* buffer, std::size_t size, int flags) {
  const ssize_t received = recvfrom(socket, buffer, size, flags, nullptr, nullptr);
  struct {
    nlmsghdr header;
    nlmsgerr error;
  } answer{};
  const int error = NetlinkFaults::answers;
  if (error == 0 || received < static_cast<ssize_t>(sizeof answer)) return received;
  std::memcpy(&answer, buffer, sizeof answer);
  answer.header.nlmsg_type = NLMSG_ERROR;
  answer.header.nlmsg_len = sizeof answer;
  answer.error.error = -error;
  std::memcpy(buffer, &answer, sizeof answer);
  ++NetlinkFaults::count;
  return sizeof answer;
}

int getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** result) {
  static const auto original =
      reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  orbiq::test::passThrough(name);
  return original(name, service, hints, result);
}

}  // extern "C"
#pragma GCC visibility pop
