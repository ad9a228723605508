#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "orbiq/services/platform/base/Export.h"
#include "orbiq/services/platform/time/Date.h"

namespace orbiq {

/// Severity of a log line, and the threshold below which lines are not printed.
enum LoggingMode : std::uint64_t {
  LoggingModeInfo = 0,
  LoggingModeWarning = 1,
  LoggingModeError = 2,
};

/// One line of the library's log.
struct LogLine {
  /// The line's severity.
  LoggingMode mode = LoggingModeInfo;
  /// "(ERROR) : " and the message (the lines of the device identifier come without that prefix);
  /// the message may hold line breaks. Valid during the call.
  std::string_view text;
  /// When it was logged, by the system's clock.
  Date time;
};

/// Takes the library's log lines instead of standard error, from any thread, several at once. The
/// thread that logs may hold the lock of the request queue (additions, sends) or of the tagger
/// factory and be in the middle of making the agent: a sink must return soon, must not call the
/// library, and must not wait for a thread that does. What it throws is dropped, which standard
/// error says. A thread of the host's may be cancelled in it; one of the library's never is, and a
/// sink must not end it.
using LogSink = std::function<void(const LogLine&)>;

/// The system log.
class ORBIQ_EXPORT SystemLog {
 public:
  /// Writes a line to the sink or else to standard error, there behind a time stamp and a process
  /// tag, with control characters escaped, and never waiting for a reader for more than a quarter
  /// of a second. In a forked child the time is UTC, marked by "Z". Any thread.
  static void write(LoggingMode mode, std::string_view text);
  /// Installs a sink; an empty one restores standard error. False without memory for it: then lines
  /// go where they went. Any thread.
  static bool setSink(LogSink sink);
};

}  // namespace orbiq
