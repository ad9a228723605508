#include "orbiq/services/platform/log/SystemLog.h"

#include <errno.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <new>
#include <utility>

#include "orbiq/services/platform/base/ForkGuard.h"
#include "orbiq/services/platform/log/InLogSink.h"
#include "orbiq/services/platform/log/StandardError.h"
#include "orbiq/services/platform/threads/ProcessExit.h"
#include "orbiq/services/platform/threads/Thread.h"
#include "orbiq/services/platform/time/Clock.h"

namespace orbiq {
namespace {

/// Sinks that were replaced stay alive: a line may still be on its way to them.
struct KeptSink {
  LogSink sink;
  const KeptSink* before;
};

// Without a lock, which a forked child might find taken.
std::atomic<const KeptSink*> newestSink{nullptr};
std::atomic<const LogSink*> currentSink{nullptr};

constinit thread_local bool inSink = false;

/// Marks the thread as long as it lives, also where a sink logs or is cancelled.
class InSink {
 public:
  InSink() : _before(std::exchange(inSink, true)) {}
  ~InSink() { inSink = _before; }
  InSink(const InSink&) = delete;
  InSink& operator=(const InSink&) = delete;

 private:
  const bool _before;
};

std::string prefix(const Date& time) {
  namespace chrono = std::chrono;
  const auto now = chrono::floor<chrono::milliseconds>(chrono::sys_time<chrono::duration<double>>(
      chrono::duration<double>(time.secondsSince1970())));
  // In a forked child the lock of the time zone may be held by a thread that is not there.
  const bool isLocal = !inForkedChild();
  std::tm local{};
  const std::time_t seconds = chrono::system_clock::to_time_t(now);
  if (isLocal) localtime_r(&seconds, &local);
  const auto shown = now + chrono::seconds(local.tm_gmtoff);
  const auto midnight = chrono::floor<chrono::days>(shown);
  const chrono::year_month_day date(midnight);
  const chrono::hh_mm_ss clock(shown - midnight);
  const auto number = [](auto part) { return static_cast<int>(part.count()); };
  char text[160];
  std::snprintf(text, sizeof text, "%d-%02u-%02u %02d:%02d:%02d.%03d%s %.40s[%ld:%ld] ",
                static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                static_cast<unsigned>(date.day()), number(clock.hours()), number(clock.minutes()),
                number(clock.seconds()), number(clock.subseconds()), isLocal ? "" : "Z",
                program_invocation_short_name, static_cast<long>(getpid()), syscall(SYS_gettid));
  return text;
}

void print(std::string_view text, const Date& time) try {
  // A log that cannot be written has nowhere to say so.
  writeToStandardError(printable(prefix(time).append(text)).append("\n"));
} catch (const std::bad_alloc&) {
  writeToStandardError("(ERROR) : There is not enough memory for a line of the log\n");
}

}  // namespace

void SystemLog::write(LoggingMode mode, std::string_view text) {
  const int savedError = errno;
  const Date now = SystemClock().now();
  // The host's teardown may have destroyed what the sink needs.
  if (currentSink.load(std::memory_order_acquire) && isProcessExiting()) return;
  if (const LogSink* const sink = currentSink.load(std::memory_order_acquire)) {
    const bool isDone = runTask([&] {
      const InSink mark;
      (*sink)(LogLine{mode, text, now});
    });
    if (!isDone) print("(ERROR) : The log sink threw an exception", now);
  } else {
    print(text, now);
  }
  errno = savedError;
}

bool isInLogSink() noexcept { return inSink; }

bool SystemLog::setSink(LogSink sink) {
  const KeptSink* kept = nullptr;
  if (sink) {
    auto* const made = new (std::nothrow) KeptSink{std::move(sink), newestSink.load()};
    if (made == nullptr) return false;
    while (!newestSink.compare_exchange_weak(made->before, made)) continue;
    kept = made;
  }
  currentSink.store(kept != nullptr ? &kept->sink : nullptr, std::memory_order_release);
  return true;
}

}  // namespace orbiq
