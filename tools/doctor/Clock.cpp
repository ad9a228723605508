// How far this machine's clock is from the server's.
#include <cmath>
#include <optional>
#include <string>

#include "orbiq/services/platform/time/HttpDate.h"
#include "tools/doctor/Shown.h"
#include "tools/doctor/Steps.h"

namespace orbiq::doctor {
namespace {

constexpr double kMinute = 60;
constexpr double kDay = 86400;

}  // namespace

Finding examineClock(Context& context) {
  Finding finding;
  const std::optional<std::string>& text = context.answer->date;
  if (!text) {
    finding.warn("no-date", "The answer has no Date, so the clocks count as equal.",
                 "Have the server send a Date with every answer.");
    return finding;
  }
  const std::optional<Date> date = parseHttpDate(*text);
  if (!date) {
    finding.warn("date-unreadable",
                 "The Date " + inQuotes(*text) + " cannot be read, so the clocks count as equal.",
                 "Send it as \"Sun, 01 Mar 2026 12:00:00 GMT\".");
    return finding;
  }
  const double offset = date->secondsSince(context.answeredAt);
  const std::string told = "The server's clock is " + shownDuration(offset) +
                           (offset < 0 ? " behind" : " ahead of") + " this machine's.";
  const char* const advice =
      "Set the clock that is wrong: this machine's, by a time service, or the "
      "server's.";
  if (std::abs(offset) >= kDay) {
    finding.fail("clock-off",
                 told +
                     " Certificates are judged by this machine's, and hits that wait are dropped "
                     "when it is put back by a day.",
                 advice);
  } else if (std::abs(offset) >= kMinute) {
    finding.warn("clock-off", told, advice);
  } else {
    finding.isFine("The clocks agree to the minute. " + told);
  }
  return finding;
}

}  // namespace orbiq::doctor
