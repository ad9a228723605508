#include "orbiq/services/platform/time/Calendar.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <limits>

namespace orbiq {
namespace {

// An archive may hold any number; beyond these, and for none at all, there is no calendar.
constexpr double kYear1 = -62135596800.0;
constexpr double kEndOf9999 = 253402300799.0;
// Nor is there one beyond what the C library's time can hold, which may have 32 bits.
using Seconds = std::numeric_limits<std::time_t>;
constexpr double kFirstSecond = std::max(kYear1, static_cast<double>(Seconds::min()));
constexpr double kLastSecond = std::min(kEndOf9999, static_cast<double>(Seconds::max()));

std::tm localTime(const Date& date) {
  const double since1970 = std::floor(date.secondsSince1970());
  const double bounded =
      std::isnan(since1970) ? 0 : std::clamp(since1970, kFirstSecond, kLastSecond);
  const auto seconds = static_cast<std::time_t>(bounded);
  std::tm local{};
  tzset();  // the device's zone may have been set since
  localtime_r(&seconds, &local);
  return local;
}

CalendarComponents componentsOf(const std::tm& local) {
  return {local.tm_year + 1900, local.tm_mon + 1, local.tm_mday};
}

}  // namespace

CalendarComponents CalendarComponents::dayOf(const Date& date) {
  return componentsOf(localTime(date));
}

CalendarComponents CalendarComponents::dayAfter(const Date& date) {
  std::tm local = localTime(date);
  local.tm_mday += 1;
  local.tm_hour = 12;  // there is a noon on every day, whatever the clocks do in the night
  local.tm_isdst = -1;
  std::mktime(&local);
  return componentsOf(local);
}

}  // namespace orbiq
