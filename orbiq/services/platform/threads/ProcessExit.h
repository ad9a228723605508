#pragma once

#include <atomic>
#include <chrono>

namespace orbiq {

/// So long an exit waits for what the library's other threads are in the middle of.
inline constexpr std::chrono::milliseconds kLongestWaitAtExit{250};

/// For the library's exit handler alone to set.
inline constinit std::atomic<bool> exitHandlerRuns{false};

/// True once the process's exit has reached that handler. Any thread, any time; false in a forked
/// child.
inline bool isProcessExiting() noexcept { return exitHandlerRuns; }

}  // namespace orbiq
