#include "orbiq/services/platform/threads/Thread.h"

#include <link.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <cerrno>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>

#include "orbiq/services/platform/base/ForkGuard.h"

namespace orbiq {
namespace {

#if defined(__has_feature)
#define ORBIQ_HAS_FEATURE(name) __has_feature(name)
#else
#define ORBIQ_HAS_FEATURE(name) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) ||               \
    ORBIQ_HAS_FEATURE(address_sanitizer) || ORBIQ_HAS_FEATURE(thread_sanitizer) || \
    ORBIQ_HAS_FEATURE(memory_sanitizer)
constexpr std::size_t kStackSize = std::size_t{8} << 20;
#else
constexpr std::size_t kStackSize = std::size_t{512} << 10;
#endif
constexpr std::size_t kLongestName = 15;

/// The C library takes what the program's thread-local variables need from each thread's stack.
std::size_t threadLocalBytes() {
  std::size_t bytes = 0;
  const auto add = [](dl_phdr_info* loaded, std::size_t, void* sum) {
    for (const auto* part = loaded->dlpi_phdr; part != loaded->dlpi_phdr + loaded->dlpi_phnum;
         ++part) {
      if (part->p_type == PT_TLS) *static_cast<std::size_t*>(sum) += part->p_memsz + part->p_align;
    }
    return 0;
  };
  dl_iterate_phdr(add, &bytes);
  return bytes;
}

thread_local bool libraryThread = false;

struct Start {
  std::string name;
  std::function<void()> body;
  WorkKind kind;
};

/// The policy and priority of whoever started the thread would be inherited. Where another one is
/// not allowed, it stays so.
void setPolicy(WorkKind kind) {
  const sched_param none{};
  pthread_setschedparam(pthread_self(), kind == WorkKind::Background ? SCHED_BATCH : SCHED_OTHER,
                        &none);
}

void* runThread(void* argument) {
  std::unique_ptr<Start> start(static_cast<Start*>(argument));
  libraryThread = true;
  setPolicy(start->kind);
  // Nobody would do its work.
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  pthread_setname_np(pthread_self(), start->name.c_str());
  start->body();
  return nullptr;
}

}  // namespace

int startThread(const std::string& label, std::function<void()> body, WorkKind kind) try {
  // Threads do not come along into a forked child, so from here on such a child must keep still.
  armForkGuard();
  auto start = std::make_unique<Start>(Start{label.substr(0, kLongestName), std::move(body), kind});

  pthread_attr_t attributes;
  int error = pthread_attr_init(&attributes);
  if (error != 0) return error;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, kStackSize + threadLocalBytes());

  // The new thread inherits the mask, so there is no moment in which it could take a signal.
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  pthread_t thread;
  error = pthread_create(&thread, &attributes, runThread, start.get());
  if (error == 0) static_cast<void>(start.release());  // the thread owns it now
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  pthread_attr_destroy(&attributes);
  return error;
} catch (const std::bad_alloc&) {
  return ENOMEM;
}

bool isLibraryThread() noexcept { return libraryThread; }

}  // namespace orbiq
