#pragma once

#include <atomic>

namespace orbiq {

/// For the library's exit handler alone to set.
inline constinit std::atomic<bool> exitHandlerRuns{false};

/// True once the process's exit has reached that handler. Any thread, any time; false in a forked
/// child.
inline bool isProcessExiting() noexcept { return exitHandlerRuns; }

}  // namespace orbiq
