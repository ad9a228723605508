#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <vector>

#include "orbiq/services/platform/loop/TimerTable.h"

namespace orbiq {
namespace {

using namespace std::chrono_literals;
using Time = TimerTable::Time;

TEST(TimerTableTest, DeadlinesAreMultiplesOfTheIntervalHoweverLateTheFirings) {
  TimerTable timers;
  TimerTable::Callback fire;
  const auto id = timers.add(1000s, 10s, true, nullptr);
  EXPECT_EQ(timers.beginFiring({}, {1010s - 1ns, id}, fire), 0U);
  for (const auto& [begun, ended, next] : std::vector<std::array<Time, 3>>{{1010s, 1010s, 1020s},
                                                                           {1029s, 1029s, 1030s},
                                                                           {1030s, 1039s, 1040s},
                                                                           {1040s, 1050s, 1060s},
                                                                           {1097s, 1201s, 1210s}}) {
    EXPECT_EQ(timers.beginFiring({}, {begun, id}, fire), id);
    EXPECT_EQ(timers.earliest(), TimerTable::kNever);
    timers.endFiring(id, ended);
    EXPECT_EQ(timers.earliest(), next);
  }
}

}  // namespace
}  // namespace orbiq
