#include "orbiq/services/platform/time/HttpDate.h"

#include <locale.h>

#include <chrono>
#include <ctime>
#include <string>

namespace orbiq {
namespace {

locale_t englishNames() {
  static const locale_t names = newlocale(LC_ALL_MASK, "C", nullptr);
  return names;
}

bool takeDigits(std::string_view& text, std::size_t count, int& number) {
  if (text.size() < count) return false;
  number = 0;
  for (const char digit : text.substr(0, count)) {
    if (digit < '0' || digit > '9') return false;
    number = 10 * number + (digit - '0');
  }
  text.remove_prefix(count);
  return true;
}

/// "+0100" or "+01:00" in seconds.
std::optional<int> parseOffset(std::string_view text) {
  const bool negative = text.starts_with('-');
  if (!negative && !text.starts_with('+')) return std::nullopt;
  text.remove_prefix(1);
  int hours = 0;
  int minutes = 0;
  if (!takeDigits(text, 2, hours)) return std::nullopt;
  if (text.starts_with(':')) text.remove_prefix(1);
  if (!takeDigits(text, 2, minutes) || !text.empty() || hours > 23 || minutes > 59) {
    return std::nullopt;
  }
  const int seconds = hours * 3600 + minutes * 60;
  return negative ? -seconds : seconds;
}

std::optional<int> parseZone(std::string_view text) {
  for (const std::string_view name : {"GMT", "UTC", "UT", "Z"}) {
    if (!text.starts_with(name)) continue;
    if (text.size() == name.size()) return 0;
    return parseOffset(text.substr(name.size()));
  }
  return parseOffset(text);
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
