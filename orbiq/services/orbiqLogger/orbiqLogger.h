#pragma once

#include <atomic>
#include <concepts>
#include <new>

#include "orbiq/services/platform/base/Export.h"
#include "orbiq/services/platform/log/SystemLog.h"
#include "orbiq/services/platform/text/String.h"

/// The library's one diagnostic channel: a threshold, and lines that are printed when their mode
/// reaches it. Any thread.
class ORBIQ_EXPORT orbiqLogger {
 public:
  /// The one logger of the process, made on first use with the threshold `LoggingModeError`.
  static orbiqLogger& sharedLogger();

  orbiqLogger(const orbiqLogger&) = delete;
  orbiqLogger& operator=(const orbiqLogger&) = delete;

  /// The threshold.
  orbiq::LoggingMode loggingMode() const { return _loggingMode.load(std::memory_order_relaxed); }
  /// Any number is accepted; one above 2 silences the three named modes.
  void setLoggingMode(orbiq::LoggingMode mode) {
    _loggingMode.store(mode, std::memory_order_relaxed);
  }

  /// Prints "(ERROR) : message" if the mode is at least the threshold. A null message prints as
  /// "(null)", a mode without a name as "()". Where there is no memory for a line, another one says
  /// so in its place.
  static void log_withMode(const orbiq::String& message, orbiq::LoggingMode mode);
  /// The same for a literal, of which a text is made only if it is printed.
  static void log_withMode(const char* message, orbiq::LoggingMode mode) {
    log_withMode([message] { return message; }, mode);
  }

  /// The same for a message that is put together only if it is printed.
  template <std::invocable MakeMessage>
  static void log_withMode(const MakeMessage& makeMessage, orbiq::LoggingMode mode) {
    if (mode < sharedLogger().loggingMode()) return;
    try {
      print(orbiq::String(makeMessage()), mode);
    } catch (const std::bad_alloc&) {
      printThatMemoryRanOut();
    }
  }

 private:
  constexpr orbiqLogger() = default;
  static void print(const orbiq::String& message, orbiq::LoggingMode mode);
  static void printThatMemoryRanOut();

  std::atomic<orbiq::LoggingMode> _loggingMode{orbiq::LoggingModeError};
};
