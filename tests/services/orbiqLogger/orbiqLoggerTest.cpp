#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/platform/log/SystemLog.h"

namespace orbiq::test {
namespace {

TEST(Logger, PrintsWhatReachesTheThreshold) {
  std::vector<std::string> lines;
  SystemLog::setSink([&](const LogLine& line) { lines.emplace_back(line.text); });
  const auto printed = [&lines](std::uint64_t threshold) {
    lines.clear();
    orbiqLogger::sharedLogger().setLoggingMode(static_cast<LoggingMode>(threshold));
    for (std::uint64_t mode = 0; mode < 5; ++mode) {
      orbiqLogger::log_withMode("message", static_cast<LoggingMode>(mode));
    }
    return lines;
  };
  EXPECT_EQ(orbiqLogger::sharedLogger().loggingMode(), LoggingModeError);
  const std::vector<std::string> all = {"(INFO) : message", "(WARNING) : message",
                                        "(ERROR) : message", "() : message", "() : message"};
  for (std::uint64_t threshold = 0; threshold < 6; ++threshold) {
    const auto first =
        all.begin() + static_cast<std::ptrdiff_t>(std::min<std::uint64_t>(threshold, all.size()));
    EXPECT_EQ(printed(threshold), std::vector<std::string>(first, all.end())) << threshold;
  }
  orbiqLogger::log_withMode(nullptr, static_cast<LoggingMode>(9));
  EXPECT_EQ(lines, (std::vector<std::string>{"() : (null)"}));

  bool made = false;
  const auto make = [&made] {
    made = true;
    return "late";
  };
  orbiqLogger::log_withMode(make, LoggingModeError);
  EXPECT_FALSE(made);
  orbiqLogger::sharedLogger().setLoggingMode(LoggingModeError);
  orbiqLogger::log_withMode(make, LoggingModeError);
  EXPECT_EQ(lines.back(), "(ERROR) : late");
}

TEST(Logger, WritesToStandardErrorWithoutASink) {
  testing::internal::CaptureStderr();
  orbiqLogger::log_withMode("one", LoggingModeError);
  const std::string hostile("\x1b[2J\a\0\r\x7f\n\t\u00e9\u0085\xff", 15);
  SystemLog::write(LoggingModeError, hostile);
  std::string handedOn;
  SystemLog::setSink([&](const LogLine& line) { handedOn = line.text; });
  SystemLog::write(LoggingModeError, hostile);
  EXPECT_EQ(handedOn, hostile);
  SystemLog::setSink([](const LogLine&) { throw std::runtime_error("host"); });
  orbiqLogger::log_withMode("two", LoggingModeError);
  const std::string written = testing::internal::GetCapturedStderr();
  const std::regex expected(
      "[0-9-]+ [0-9:]+\\.[0-9]+ orbiq_tests\\[[0-9]+:[0-9]+\\] \\(ERROR\\) : one\n"
      ".* \\\\x1B\\[2J\\\\x07\\\\x00\\\\x0D\\\\x7F\n\t\t\u00e9\\\\u0085\\\\xFF\n"
      ".*\\(ERROR\\) : The log sink threw an exception\n");
  EXPECT_TRUE(std::regex_match(written, expected)) << written;
}

}  // namespace
}  // namespace orbiq::test
