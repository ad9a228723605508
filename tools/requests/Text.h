#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace orbiq::requests {

/// The text with every character escaped that would move, hide or reorder what a terminal shows.
std::string escaped(std::string_view text);
/// How many columns an escaped text takes: one for each character.
std::size_t widthOf(std::string_view text);
/// At most so many columns of an escaped text, with an ellipsis for what is left out.
std::string shortened(std::string text, std::size_t width);

/// "2026-03-01 12:00:00", in local time; the bare number if the calendar has no such date.
std::string localTime(double secondsSince1970);
/// "2026-03-01T11:00:00.250Z".
std::string utcTime(double secondsSince1970);
/// "5 min ago", "in 2 h".
std::string distance(double secondsSince1970, double now);

/// Whether standard output is a terminal that may have colours.
bool isColoured();
/// Why a bundle identifier cannot name a directory; empty if it can.
std::string whatIsWrongWithIdentifier(const std::string& identifier);

}  // namespace orbiq::requests
