#pragma once

#include <string>
#include <string_view>

namespace orbiq {

/// The text as it may be shown on a terminal or kept in a file: control characters, DEL and bytes
/// that are no UTF-8 as "\x1B", C1 controls as "\u0085". Tabs stay, and each line break is followed
/// by one, so that no text passes for a line of the log.
std::string printable(std::string_view text);

/// Writes a line, which ends in a line break, to standard error, whatever that is: nothing, a file,
/// a pipe without a reader, one that is full, a descriptor that does not block. Raises no signal.
/// In one write, but for a line that is longer than what a pipe takes whole (4096 bytes). A line
/// that cannot be written within a quarter of a second is dropped, and those behind it without a
/// wait, until one can be written again; one that was cut short is marked by " [cut short]" before
/// the next. Takes no lock; any thread, also of a forked child.
void writeToStandardError(std::string_view line);

}  // namespace orbiq
