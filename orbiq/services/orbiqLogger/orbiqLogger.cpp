#include "orbiq/services/orbiqLogger/orbiqLogger.h"

#include <iterator>
#include <string>
#include <string_view>

#include "orbiq/services/platform/log/SystemLog.h"

namespace {

constexpr std::string_view kNames[] = {"INFO", "WARNING", "ERROR"};

std::string_view nameOf(orbiq::LoggingMode mode) {
  return mode < std::size(kNames) ? kNames[mode] : "";
}

}  // namespace

orbiqLogger& orbiqLogger::sharedLogger() {
  // It needs no making, which a forked child might find half done, and no destructor.
  static constinit orbiqLogger logger;
  return logger;
}

void orbiqLogger::log_withMode(const orbiq::String& message, orbiq::LoggingMode mode) {
  log_withMode([&] { return message; }, mode);
}

void orbiqLogger::print(const orbiq::String& message, orbiq::LoggingMode mode) {
  std::string line = "(";
  line.append(nameOf(mode)).append(") : ").append(message.description());
  orbiq::SystemLog::write(mode, line);
}

void orbiqLogger::printThatMemoryRanOut() {
  orbiq::SystemLog::write(orbiq::LoggingModeError, "(ERROR) : There is not enough memory");
}
