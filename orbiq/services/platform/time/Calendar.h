#pragma once

#include <cstdint>
#include <limits>

#include "orbiq/services/platform/time/Date.h"

namespace orbiq {

/// A day of the Gregorian calendar in the device's time zone, taken without its hour.
struct CalendarComponents {
  /// What a component that was not asked for holds.
  static constexpr std::intptr_t kUndefined = std::numeric_limits<std::intptr_t>::max();

  std::intptr_t year = kUndefined;
  std::intptr_t month = kUndefined;
  std::intptr_t day = kUndefined;
  std::intptr_t hour = kUndefined;

  static CalendarComponents dayOf(const Date& date);
  static CalendarComponents dayAfter(const Date& date);

  bool isSameDayAs(const CalendarComponents& other) const {
    return day == other.day && month == other.month && year == other.year;
  }
};

}  // namespace orbiq
