#include "orbiq/services/orbiqLogger/orbiqLogger.h"

#include <string>
#include <string_view>

#include "orbiq/services/platform/SystemLog.h"

namespace {

std::string_view nameOf(orbiq::LoggingMode mode) {
  switch (mode) {
    case orbiq::LoggingModeInfo:
      return "INFO";
    case orbiq::LoggingModeWarning:
      return "WARNING";
    case orbiq::LoggingModeError:
      return "ERROR";
  }
  return "";
}

}  // namespace

orbiqLogger& orbiqLogger::sharedLogger() {
  static auto* const logger = new orbiqLogger();  // never destroyed
  return *logger;
}

void orbiqLogger::log_withMode(const orbiq::String& message, orbiq::LoggingMode mode) {
  if (!isPrinted(mode)) return;
  std::string line = "(";
  line.append(nameOf(mode)).append(") : ").append(message.description());
  orbiq::SystemLog::write(mode, line);
}
