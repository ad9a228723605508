#pragma once

namespace orbiq {

/// A moment: seconds since 2001-01-01 00:00:00 UTC.
struct Date {
  double secondsSinceReferenceDate = 0;

  static constexpr double kSecondsFrom1970ToReferenceDate = 978307200.0;

  static constexpr Date sinceReferenceDate(double seconds) { return Date{seconds}; }
  static constexpr Date since1970(double seconds) {
    return Date{seconds - kSecondsFrom1970ToReferenceDate};
  }
  constexpr double secondsSince1970() const {
    return secondsSinceReferenceDate + kSecondsFrom1970ToReferenceDate;
  }
  /// Seconds from `earlier` to this moment; negative if this one comes first.
  constexpr double secondsSince(const Date& earlier) const {
    return secondsSinceReferenceDate - earlier.secondsSinceReferenceDate;
  }
  constexpr Date adding(double seconds) const { return Date{secondsSinceReferenceDate + seconds}; }

  friend constexpr bool operator==(const Date& left, const Date& right) = default;
};

}  // namespace orbiq
