#pragma once

#include <string>
#include <string_view>

#include "orbiq/services/platform/time/Date.h"

namespace orbiq::doctor {

// What would move a terminal's cursor is escaped by the printer.

/// A URL as it may be shown: without user and password, and with the values of its query left out.
std::string shownUrl(std::string_view text);
/// A proxy as its variable names it, without user and password.
std::string shownProxy(const std::string& text);
/// Any other text in quotation marks, cut if it is long.
std::string inQuotes(std::string_view text);
/// "2 days", "1 hour", "90 seconds".
std::string shownDuration(double seconds);
/// "2026-03-01 12:00:00 UTC".
std::string shownTime(const Date& time);
/// "No such file or directory", in the language of the other sentences.
std::string causeOf(int error);

}  // namespace orbiq::doctor
