#include "orbiq/services/platform/time/HttpDate.h"

#include <locale.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <string>

namespace orbiq {
namespace {

locale_t englishNames() {
  static const locale_t names = newlocale(LC_ALL_MASK, "C", nullptr);
  return names;
}

/// The offset in seconds, as "+0100", "+01:00" or "Z", alone or behind a name that says the same.
std::optional<int> parseZone(const char* text) {
  for (const std::string_view name : {"GMT", "UTC", "UT"}) {
    if (!std::string_view(text).starts_with(name)) continue;
    text += name.size();
    if (*text == '\0') return 0;
    break;
  }
  std::tm parts{};
  const char* const end = strptime(text, "%z", &parts);
  if (end == nullptr || *end != '\0' || std::labs(parts.tm_gmtoff) >= 86'400) return std::nullopt;
  return static_cast<int>(parts.tm_gmtoff);
}

}  // namespace

std::optional<Date> parseHttpDate(std::string_view text) {
  const std::string copy(text);
  if (copy.find('\0') != std::string::npos) return std::nullopt;
  std::tm parts{};
  const char* const zone =
      strptime_l(copy.c_str(), "%a, %d %b %Y %H:%M:%S ", &parts, englishNames());
  if (zone == nullptr) return std::nullopt;
  const std::optional<int> offset = parseZone(zone);
  const std::chrono::year_month_day day{std::chrono::year(parts.tm_year + 1900),
                                        std::chrono::month(static_cast<unsigned>(parts.tm_mon + 1)),
                                        std::chrono::day(static_cast<unsigned>(parts.tm_mday))};
  if (!offset || !day.ok()) return std::nullopt;
  const auto days = static_cast<double>(std::chrono::sys_days(day).time_since_epoch().count());
  const int seconds = parts.tm_hour * 3600 + parts.tm_min * 60 + parts.tm_sec - *offset;
  return Date::since1970(days * 86400 + seconds);
}

}  // namespace orbiq
