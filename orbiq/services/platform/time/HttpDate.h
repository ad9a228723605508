#pragma once

#include <optional>
#include <string_view>

#include "orbiq/services/platform/time/Date.h"

namespace orbiq {

/// Reads "EEE, dd MMM yyyy HH:mm:ss z" under English names of days and months, whatever the
/// process's locale; short of that, what `strptime` lets pass. The zone is GMT, UTC, UT or Z, alone
/// or followed by an offset, or an offset alone ("+0100", "GMT+01:00"); other zones' names are not
/// read. No value for anything else.
std::optional<Date> parseHttpDate(std::string_view text);

}  // namespace orbiq
