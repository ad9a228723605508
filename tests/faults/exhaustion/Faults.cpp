#include "tests/faults/exhaustion/Faults.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>

namespace faults {
namespace {

std::atomic<bool> isArmed{false};
std::atomic<Kind> armedKind{Kind::Memory};
std::atomic<std::uint64_t> calls{0};
std::atomic<std::uint64_t> firstFailing{0};
std::atomic<std::uint64_t> afterLastFailing{0};

bool fails(Kind kind) {
  if (!isArmed.load(std::memory_order_relaxed) || armedKind != kind) return false;
  const std::uint64_t number = ++calls;
  return number >= firstFailing && number < afterLastFailing;
}

template <class Function>
Function* next(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

Kind kindOf(std::string_view name) {
  if (name == "memory") return Kind::Memory;
  return name == "descriptors" ? Kind::Descriptors : Kind::Threads;
}

void arm(Kind kind, std::uint64_t first, std::uint64_t count) {
  calls = 0;
  armedKind = kind;
  firstFailing = first;
  afterLastFailing = first + count;
  isArmed = true;
}

std::uint64_t disarm() {
  isArmed = false;
  return calls;
}

}  // namespace faults

using faults::fails;
using faults::Kind;

// The libraries that the program loads must find these, too.
#pragma GCC visibility push(default)
extern "C" {

// The C library's own names for what it would have used. dlsym itself takes memory.
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* old, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) {
  if (!fails(Kind::Memory)) return __libc_malloc(size);
  errno = ENOMEM;
  return nullptr;
}

void* calloc(std::size_t count, std::size_t size) {
  if (!fails(Kind::Memory)) return __libc_calloc(count, size);
  errno = ENOMEM;
  return nullptr;
}

void* realloc(void* old, std::size_t size) {
  if (!fails(Kind::Memory)) return __libc_realloc(old, size);
  errno = ENOMEM;
  return nullptr;
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
  if (!fails(Kind::Memory)) return __libc_memalign(alignment, size);
  errno = ENOMEM;
  return nullptr;
}

int posix_memalign(void** result, std::size_t alignment, std::size_t size) {
  if (fails(Kind::Memory)) return ENOMEM;
  *result = __libc_memalign(alignment, size);
  return *result ? 0 : ENOMEM;
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) {
  static auto* const real = faults::next(&::pthread_create, "pthread_create");
  return fails(Kind::Threads) ? EAGAIN : real(thread, attributes, body, argument);
}

#define ORBIQ_FAILING_DESCRIPTOR(name, parameters, arguments) \
  int name parameters {                                       \
    static auto* const real = faults::next(&::name, #name);   \
    if (!fails(Kind::Descriptors)) return real arguments;     \
    errno = EMFILE;                                           \
    return -1;                                                \
  }

ORBIQ_FAILING_DESCRIPTOR(socket, (int domain, int type, int protocol), (domain, type, protocol))
ORBIQ_FAILING_DESCRIPTOR(socketpair, (int domain, int type, int protocol, int* pair),
                         (domain, type, protocol, pair))
ORBIQ_FAILING_DESCRIPTOR(pipe, (int* pair), (pair))
ORBIQ_FAILING_DESCRIPTOR(pipe2, (int* pair, int flags), (pair, flags))
ORBIQ_FAILING_DESCRIPTOR(epoll_create1, (int flags), (flags))
ORBIQ_FAILING_DESCRIPTOR(eventfd, (unsigned count, int flags), (count, flags))
ORBIQ_FAILING_DESCRIPTOR(timerfd_create, (int clock, int flags), (clock, flags))
ORBIQ_FAILING_DESCRIPTOR(dup, (int old), (old))

int epoll_ctl(int set, int operation, int file, epoll_event* event) {
  static auto* const real = faults::next(&::epoll_ctl, "epoll_ctl");
  if (operation != EPOLL_CTL_ADD || !fails(Kind::Descriptors)) {
    return real(set, operation, file, event);
  }
  errno = ENOSPC;
  return -1;
}

#define ORBIQ_FAILING_OPEN(name, parameters, arguments, flags)             \
  int name parameters {                                                    \
    static auto* const real = faults::next(&::name, #name);                \
    va_list list;                                                          \
    va_start(list, flags);                                                 \
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(list, mode_t) : 0; \
    va_end(list);                                                          \
    if (!fails(Kind::Descriptors)) return real arguments;                  \
    errno = EMFILE;                                                        \
    return -1;                                                             \
  }

ORBIQ_FAILING_OPEN(open, (const char* path, int flags, ...), (path, flags, mode), flags)
ORBIQ_FAILING_OPEN(openat, (int directory, const char* path, int flags, ...),
                   (directory, path, flags, mode), flags)

int fcntl(int file, int command, ...) {
  static auto* const real = faults::next(&::fcntl, "fcntl");
  va_list list;
  va_start(list, command);
  void* const argument = va_arg(list, void*);
  va_end(list);
  if (command != F_DUPFD && command != F_DUPFD_CLOEXEC) return real(file, command, argument);
  if (!fails(Kind::Descriptors)) return real(file, command, argument);
  errno = EMFILE;
  return -1;
}

}  // extern "C"
#pragma GCC visibility pop
