#pragma once

namespace orbiq {

/// A moment: seconds since 2001-01-01 00:00:00 UTC.
struct Date {
  /// Negative before that.
  double secondsSinceReferenceDate = 0;

  /// From 1970-01-01 00:00:00 UTC, where the system's clock begins.
  static constexpr double kSecondsFrom1970ToReferenceDate = 978307200.0;

  /// The moment so many seconds after 2001-01-01 00:00:00 UTC.
  static constexpr Date sinceReferenceDate(double seconds) { return Date{seconds}; }
  /// The moment so many seconds after 1970-01-01 00:00:00 UTC.
  static constexpr Date since1970(double seconds) {
    return Date{seconds - kSecondsFrom1970ToReferenceDate};
  }
  /// Seconds since 1970-01-01 00:00:00 UTC.
  constexpr double secondsSince1970() const {
    return secondsSinceReferenceDate + kSecondsFrom1970ToReferenceDate;
  }
  /// Seconds from `earlier` to this moment; negative if this one comes first.
  constexpr double secondsSince(const Date& earlier) const {
    return secondsSinceReferenceDate - earlier.secondsSinceReferenceDate;
  }
  /// The moment so many seconds later; earlier for a negative number.
  constexpr Date adding(double seconds) const { return Date{secondsSinceReferenceDate + seconds}; }

  /// The same moment. A date that is no number is equal to nothing.
  friend constexpr bool operator==(const Date& left, const Date& right) = default;
};

}  // namespace orbiq
