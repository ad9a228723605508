#include "tools/requests/Text.h"

#include <time.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "orbiq/services/platform/text/Utf8.h"

namespace orbiq::requests {
namespace {

bool isHarmless(const Utf8Character& character) {
  const char32_t code = character.codePoint;
  const auto isAmong = [code](char32_t first, char32_t last) {
    return code >= first && code <= last;
  };
  if (!character.wellFormed || code == '\\') return false;
  if (code < 0x20 || isAmong(0x7F, 0x9F) || code == 0xAD || code == 0x61C) return false;
  // Of no width, separators of lines, overrides of direction, tags.
  return !isAmong(0x200B, 0x200F) && !isAmong(0x2028, 0x202E) && !isAmong(0x2060, 0x206F) &&
         code != 0xFEFF && !isAmong(0xFFF9, 0xFFFB) && !isAmong(0xE0000, 0xE007F);
}

template <class... Arguments>
std::string formatted(const char* format, Arguments... arguments) {
  char text[64];
  const int length = std::snprintf(text, sizeof text, format, arguments...);
  return {text, static_cast<std::size_t>(length)};
}

/// Seconds that every calendar function takes.
bool isInCalendar(double seconds) { return std::abs(seconds) < 1e11; }

std::string calendar(double seconds, const char* format, bool isLocal) {
  const auto whole = static_cast<time_t>(std::floor(seconds));
  struct tm fields{};
  if (isLocal) {
    localtime_r(&whole, &fields);
  } else {
    gmtime_r(&whole, &fields);
  }
  char text[64];
  return {text, strftime(text, sizeof text, format, &fields)};
}

}  // namespace

std::string escaped(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const Utf8Character character = decodeUtf8(text);
    const std::string_view bytes = text.substr(0, character.byteCount);
    text.remove_prefix(character.byteCount);
    if (isHarmless(character)) {
      result += bytes;
    } else if (bytes == "\\") {
      result += "\\\\";
    } else if (bytes.size() == 1) {
      result += formatted("\\x%02X", static_cast<unsigned char>(bytes[0]));
    } else {
      result += formatted("\\u{%X}", static_cast<unsigned>(character.codePoint));
    }
  }
  return result;
}

std::size_t widthOf(std::string_view text) {
  std::size_t width = 0;
  for (; !text.empty(); ++width) text.remove_prefix(decodeUtf8(text).byteCount);
  return width;
}

std::string shortened(std::string text, std::size_t width) {
  std::size_t cut = 0;
  std::string_view rest = text;
  for (std::size_t column = 0; !rest.empty(); ++column) {
    if (column == width) {
      text.resize(cut);
      return text + "…";
    }
    if (column + 1 < width) cut += decodeUtf8(rest).byteCount;
    rest.remove_prefix(decodeUtf8(rest).byteCount);
  }
  return text;
}

std::string localTime(double seconds) {
  if (!isInCalendar(seconds)) return formatted("%g s since 1970", seconds);
  return calendar(seconds, "%Y-%m-%d %H:%M:%S", true);
}

std::string utcTime(double seconds) {
  if (!isInCalendar(seconds)) return formatted("%g s since 1970", seconds);
  const int thousandths = static_cast<int>((seconds - std::floor(seconds)) * 1000);
  return calendar(seconds, "%Y-%m-%dT%H:%M:%S", false) + formatted(".%03dZ", thousandths);
}

std::string distance(double seconds, double now) {
  const double apart = std::abs(now - seconds);
  const auto amount = [apart](double unit, const char* name) {
    return formatted("%.0f %s", std::floor(apart / unit), name);
  };
  if (!(apart < 1e11)) return "?";
  const std::string text = apart < 60       ? amount(1, "s")
                           : apart < 3600   ? amount(60, "min")
                           : apart < 172800 ? amount(3600, "h")
                                            : amount(86400, "days");
  return seconds > now ? "in " + text : text + " ago";
}

bool isColoured() {
  const char* const refused = std::getenv("NO_COLOR");
  return isatty(STDOUT_FILENO) == 1 && (refused == nullptr || *refused == '\0');
}

std::string whatIsWrongWithIdentifier(const std::string& identifier) {
  const bool isName = !identifier.empty() && !identifier.starts_with('.') &&
                      identifier.find('/') == std::string::npos;
  return isName ? "" : "the bundle identifier must be the name of a directory";
}

}  // namespace orbiq::requests
