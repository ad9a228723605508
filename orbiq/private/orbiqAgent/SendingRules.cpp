#include "orbiq/private/orbiqAgent/SendingRules.h"

#include <cmath>
#include <cstdint>

#include "orbiq/services/platform/time/Calendar.h"

namespace orbiq::SendingRules {
namespace {

constexpr double kSecondsBeforeRetry = 60.0;
constexpr double kValiditySlackSeconds = 5.0;
constexpr std::intptr_t kHourLimit = 3;
constexpr int kStatusOk = 200;

}  // namespace

bool isDue(const std::optional<Date>& lastFail, const Date& now) {
  // Asked this way round, a date that is no number does not hold the queue up for ever.
  return !lastFail || !(std::abs(lastFail->secondsSince(now)) < kSecondsBeforeRetry);
}

bool isValid(const std::optional<Date>& creationDate, const Date& now, double offset) {
  if (!creationDate) return true;
  const Date serverNow = now.adding(offset);
  const Date created = creationDate->adding(offset);
  if (created.secondsSince(serverNow) <= kValiditySlackSeconds) return true;

  const auto today = CalendarComponents::dayOf(serverNow);
  if (today.isSameDayAs(CalendarComponents::dayOf(created))) return true;
  // The hour is read from components that were taken without one, so this is never true: a request
  // of a later day is dropped in the night hours, too.
  return today.isSameDayAs(CalendarComponents::dayAfter(created)) && today.hour < kHourLimit;
}

std::optional<HitFate> fateAfter(std::optional<int> status) {
  if (!status) return std::nullopt;
  return *status == kStatusOk ? HitFate::Sent : HitFate::AnsweredWithAnotherStatus;
}

}  // namespace orbiq::SendingRules
