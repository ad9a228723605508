// Dates of HTTP and days of the calendar.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "orbiq/services/platform/time/Calendar.h"
#include "orbiq/services/platform/time/HttpDate.h"

namespace orbiq::test {
namespace {

TEST(HttpDate, ReadsWhatServersSendAndRefusesTheRest) {
  for (const char* text : {"Sun, 06 Nov 1994 08:49:37 GMT", "Sun, 06 Nov 1994 09:49:37 +0100",
                           "Sun, 06 Nov 1994 07:19:37 GMT-01:30", "Sun, 6 Nov 1994 08:49:37 Z"}) {
    const auto date = parseHttpDate(text);
    ASSERT_TRUE(date) << text;
    EXPECT_EQ(date->secondsSince1970(), 784111777) << text;
  }
  for (const char* text : {"", "Sun, 06 Nov 1994 08:49:37", "Sun, 06 Nov 1994 08:49:37 GMT ",
                           "784111777", "Sun, 31 Feb 1994 08:49:37 GMT",
                           "Sun, 06 Nov 1994 28:49:37 GMT", "Sun, 06 Nov 1994 08:49:37 +1",
                           "Sun, 06 Nov 1994 08:49:37 +2400", "Sun, 06 Nov 1994 08:49:37 XYZ"}) {
    EXPECT_FALSE(parseHttpDate(text)) << text;
  }
}

TEST(Calendar, FollowsTheDevicesTimeZone) {
  const Date lastSecond = Date::since1970(1774738799);                // of 2026-03-28
  for (const char* zone : {"UTC", "CET-1CEST,M3.5.0/0,M10.5.0/3"}) {  // which is set late
    setenv("TZ", zone, 1);
    const bool isOver = CalendarComponents::dayOf(lastSecond.adding(1)).isSameDayAs({2026, 3, 29});
    EXPECT_EQ(isOver, zone[0] == 'C');
  }
  const auto day = CalendarComponents::dayOf(lastSecond);
  EXPECT_TRUE(day.isSameDayAs({2026, 3, 28}));
  EXPECT_EQ(day.hour, CalendarComponents::kUndefined);
  // Of the next day the first hour is missing.
  for (const Date& date : {lastSecond, lastSecond.adding(-84'599)}) {
    EXPECT_TRUE(CalendarComponents::dayAfter(date).isSameDayAs({2026, 3, 29}));
  }
  EXPECT_TRUE(CalendarComponents::dayAfter(Date::since1970(1798700000))
                  .isSameDayAs({2027, 1, 1}));  // 2026-12-31
}

}  // namespace
}  // namespace orbiq::test
