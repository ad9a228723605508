#include "orbiq/services/platform/log/SystemLog.h"

#include <cxxabi.h>
#include <errno.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <new>
#include <utility>

#include "orbiq/services/platform/base/ForkGuard.h"
#include "orbiq/services/platform/log/InLogSink.h"
#include "orbiq/services/platform/log/StandardError.h"
#include "orbiq/services/platform/threads/ProcessExit.h"
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

/// In UTC, without the C library, whose functions for that all take its lock.
std::tm universalTime(std::time_t time) {
  const std::chrono::sys_seconds moment{std::chrono::seconds(time)};
  const auto midnight = std::chrono::floor<std::chrono::days>(moment);
  const std::chrono::year_month_day date(midnight);
  const std::chrono::hh_mm_ss clock(moment - midnight);
  std::tm parts{};
  parts.tm_year = static_cast<int>(date.year()) - 1900;
  parts.tm_mon = static_cast<int>(static_cast<unsigned>(date.month())) - 1;
  parts.tm_mday = static_cast<int>(static_cast<unsigned>(date.day()));
  parts.tm_hour = static_cast<int>(clock.hours().count());
  parts.tm_min = static_cast<int>(clock.minutes().count());
  parts.tm_sec = static_cast<int>(clock.seconds().count());
  return parts;
}

std::string prefix(const Date& time) {
  const double seconds = std::floor(time.secondsSince1970());
  const auto milliseconds = static_cast<int>((time.secondsSince1970() - seconds) * 1000);
  const auto whole = static_cast<std::time_t>(seconds);
  // In a forked child the lock of the time zone may be held by a thread that is not there.
  const bool isLocal = !inForkedChild();
  std::tm parts{};
  if (isLocal) {
    localtime_r(&whole, &parts);
  } else {
    parts = universalTime(whole);
  }
  char text[160];
  std::snprintf(text, sizeof text, "%d-%02d-%02d %02d:%02d:%02d.%03d%s %.40s[%ld:%ld] ",
                parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min,
                parts.tm_sec, milliseconds, isLocal ? "" : "Z", program_invocation_short_name,
                static_cast<long>(getpid()), syscall(SYS_gettid));
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
    try {
      const InSink mark;
      (*sink)(LogLine{mode, text, now});
    } catch (const abi::__forced_unwind&) {
      throw;  // the sink's thread was cancelled
    } catch (...) {
      print("(ERROR) : The log sink threw an exception", now);
    }
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
