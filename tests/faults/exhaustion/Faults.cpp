#include "tests/faults/exhaustion/Faults.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
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
#include <string_view>

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

/// The function whose place ours takes.
template <auto* function>
auto* next(const char* name) {
  static auto* const real = reinterpret_cast<decltype(function)>(dlsym(RTLD_NEXT, name));
  return real;
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

// `name` with these parameters does `real`, unless its turn to fail has come.
#define ORBIQ_FAILING(kind, error, failed, result, name, parameters, real) \
  result name parameters {                                                 \
    if (!fails(Kind::kind)) return real;                                   \
    errno = error;                                                         \
    return failed;                                                         \
  }
#define ORBIQ_FAILING_MEMORY(name, parameters, real) \
  ORBIQ_FAILING(Memory, ENOMEM, nullptr, void*, name, parameters, real)
#define ORBIQ_FAILING_DESCRIPTOR(name, parameters, arguments)   \
  ORBIQ_FAILING(Descriptors, EMFILE, -1, int, name, parameters, \
                faults::next<&::name>(#name) arguments)

ORBIQ_FAILING_MEMORY(malloc, (std::size_t size), __libc_malloc(size))
ORBIQ_FAILING_MEMORY(calloc, (std::size_t count, std::size_t size), __libc_calloc(count, size))
ORBIQ_FAILING_MEMORY(realloc, (void* old, std::size_t size), __libc_realloc(old, size))
ORBIQ_FAILING_MEMORY(aligned_alloc, (std::size_t alignment, std::size_t size),
                     __libc_memalign(alignment, size))
ORBIQ_FAILING(Memory, ENOMEM, ENOMEM, int, posix_memalign,
              (void** result, std::size_t alignment, std::size_t size),
              (*result = __libc_memalign(alignment, size)) ? 0 : ENOMEM)
ORBIQ_FAILING(Threads, EAGAIN, EAGAIN, int, pthread_create,
              (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*),
               void* argument),
              faults::next<&::pthread_create>("pthread_create")(thread, attributes, body, argument))
ORBIQ_FAILING_DESCRIPTOR(socket, (int domain, int type, int protocol), (domain, type, protocol))
ORBIQ_FAILING_DESCRIPTOR(socketpair, (int domain, int type, int protocol, int* pair),
                         (domain, type, protocol, pair))
ORBIQ_FAILING_DESCRIPTOR(pipe, (int* pair), (pair))
ORBIQ_FAILING_DESCRIPTOR(pipe2, (int* pair, int flags), (pair, flags))
ORBIQ_FAILING_DESCRIPTOR(epoll_create1, (int flags), (flags))
ORBIQ_FAILING_DESCRIPTOR(eventfd, (unsigned count, int flags), (count, flags))
ORBIQ_FAILING_DESCRIPTOR(timerfd_create, (int clock, int flags), (clock, flags))
ORBIQ_FAILING_DESCRIPTOR(dup, (int old), (old))
// All moments of this kind are tried, and libcurl's start fails at none of the others.
ORBIQ_FAILING(Descriptors, EMFILE, CURLE_FAILED_INIT, CURLcode, curl_global_init_mem,
              (long flags, curl_malloc_callback allocate, curl_free_callback release,
               curl_realloc_callback change, curl_strdup_callback copy, curl_calloc_callback clear),
              faults::next<&::curl_global_init_mem>("curl_global_init_mem")(flags, allocate,
                                                                            release, change, copy,
                                                                            clear))

int epoll_ctl(int set, int operation, int file, epoll_event* event) {
  if (operation != EPOLL_CTL_ADD || !fails(Kind::Descriptors)) {
    return faults::next<&::epoll_ctl>("epoll_ctl")(set, operation, file, event);
  }
  errno = ENOSPC;
  return -1;
}

#define ORBIQ_FAILING_OPEN(name, parameters, arguments)                           \
  int name parameters {                                                           \
    va_list list;                                                                 \
    va_start(list, flags);                                                        \
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(list, mode_t) : 0;        \
    va_end(list);                                                                 \
    if (!fails(Kind::Descriptors)) return faults::next<&::name>(#name) arguments; \
    errno = EMFILE;                                                               \
    return -1;                                                                    \
  }

ORBIQ_FAILING_OPEN(open, (const char* path, int flags, ...), (path, flags, mode))
ORBIQ_FAILING_OPEN(openat, (int directory, const char* path, int flags, ...),
                   (directory, path, flags, mode))

int fcntl(int file, int command, ...) {
  va_list list;
  va_start(list, command);
  void* const argument = va_arg(list, void*);
  va_end(list);
  const bool opens = command == F_DUPFD || command == F_DUPFD_CLOEXEC;
  if (!opens || !fails(Kind::Descriptors)) {
    return faults::next<&::fcntl>("fcntl")(file, command, argument);
  }
  errno = EMFILE;
  return -1;
}

/// Has the collector's name here.
int getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** result) {
  if (name != nullptr && std::string_view(name) == "collector.test") name = "127.0.0.1";
  return faults::next<&::getaddrinfo>("getaddrinfo")(name, service, hints, result);
}

}  // extern "C"
#pragma GCC visibility pop
