#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <regex>
#include <stdexcept>
#include <string>

#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/platform/log/SystemLog.h"

namespace orbiq::test {
namespace {

TEST(Logger, PrintsWhatReachesTheThreshold) {
  std::string printed;
  SystemLog::setSink([&](const LogLine& line) { printed.append(line.text).append("\n"); });
  EXPECT_EQ(orbiqLogger::sharedLogger().loggingMode(), LoggingModeError);
  for (const std::uint64_t threshold : {0U, 1U, 2U, 3U, 4U}) {
    orbiqLogger::sharedLogger().setLoggingMode(static_cast<LoggingMode>(threshold));
    for (std::uint64_t mode = 0; mode < 4; ++mode) {
      orbiqLogger::log_withMode(std::to_string(threshold), static_cast<LoggingMode>(mode));
    }
  }
  EXPECT_EQ(printed,
            "(INFO) : 0\n(WARNING) : 0\n(ERROR) : 0\n() : 0\n(WARNING) : 1\n(ERROR) : 1\n() : 1\n"
            "(ERROR) : 2\n() : 2\n() : 3\n");
  // What is not printed is not even made.
  orbiqLogger::log_withMode([]() -> String { throw std::logic_error("made"); }, LoggingModeError);
}

std::string localTime() {
  const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  char text[20];
  std::strftime(text, sizeof text, "%F %T", std::localtime(&now));
  return text;
}

TEST(Logger, WritesToStandardErrorWithoutASink) {
  setenv("TZ", "QUARTERS-13:45", 1);
  const std::string before = localTime();
  testing::internal::CaptureStderr();
  orbiqLogger::log_withMode("one", LoggingModeError);
  const std::string hostile("\x1b[2J\a\0\r\x7f\n\t\u00e9\u0085\xff", 15);
  SystemLog::write(LoggingModeError, hostile);
  SystemLog::setSink([](const LogLine&) { throw std::runtime_error("host"); });
  orbiqLogger::log_withMode("two", LoggingModeError);
  const std::string written = testing::internal::GetCapturedStderr();
  EXPECT_LE(before, written.substr(0, before.size()));
  EXPECT_GE(localTime(), written.substr(0, before.size()));
  const std::regex expected(
      "[0-9-]+ [0-9:]+\\.[0-9]+ orbiq_tests\\[[0-9]+:[0-9]+\\] \\(ERROR\\) : one\n"
      ".* \\\\x1B\\[2J\\\\x07\\\\x00\\\\x0D\\\\x7F\n\t\t\u00e9\\\\u0085\\\\xFF\n"
      ".*\\(ERROR\\) : The log sink threw an exception\n");
  EXPECT_TRUE(std::regex_match(written, expected)) << written;
}

}  // namespace
}  // namespace orbiq::test
