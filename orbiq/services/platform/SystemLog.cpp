#include "orbiq/services/platform/SystemLog.h"

#include <errno.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <memory>
#include <utility>
#include <vector>

#include "orbiq/services/platform/Clock.h"
#include "orbiq/services/platform/Mutex.h"
#include "orbiq/services/platform/ProcessExit.h"

namespace orbiq {
namespace {

Mutex sinkLock;

// Read without a lock, also in a forked child. Sinks that were replaced stay alive: a line may
// still be on its way to them.
std::atomic<const LogSink*> currentSink{nullptr};

std::string prefix(const Date& time) {
  const double seconds = std::floor(time.secondsSince1970());
  const auto milliseconds = static_cast<int>((time.secondsSince1970() - seconds) * 1000);
  const auto whole = static_cast<std::time_t>(seconds);
  std::tm local{};
  localtime_r(&whole, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  char text[128];
  std::snprintf(text, sizeof text, "%s.%03d %.40s[%ld:%ld] ", stamp, milliseconds,
                program_invocation_short_name, static_cast<long>(getpid()), syscall(SYS_gettid));
  return text;
}

void writeToStandardError(std::string_view text, const Date& time) {
  std::string line = prefix(time);
  line.append(text).append("\n");
  // A log that cannot be written has nowhere to say so.
  [[maybe_unused]] const ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace

void SystemLog::write(LoggingMode mode, std::string_view text) {
  const int savedError = errno;
  const Date now = SystemClock().now();
  // The host's teardown may have destroyed what the sink needs.
  if (currentSink.load(std::memory_order_acquire) && isProcessExiting()) return;
  if (const LogSink* const sink = currentSink.load(std::memory_order_acquire)) {
    try {
      (*sink)(LogLine{mode, text, now});
    } catch (...) {
      writeToStandardError("(ERROR) : The log sink threw an exception", now);
    }
  } else {
    writeToStandardError(text, now);
  }
  errno = savedError;
}

void SystemLog::setSink(LogSink sink) {
  static auto* const sinks = new std::vector<std::unique_ptr<const LogSink>>();  // never destroyed
  const Lock lock(sinkLock);
  if (!sink) {
    currentSink.store(nullptr, std::memory_order_release);
    return;
  }
  sinks->push_back(std::make_unique<const LogSink>(std::move(sink)));
  currentSink.store(sinks->back().get(), std::memory_order_release);
}

}  // namespace orbiq
