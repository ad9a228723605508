#pragma once

namespace orbiq {

/// True once the process's exit has reached the library's exit handler. Any thread, any time; false
/// in a forked child.
bool isProcessExiting() noexcept;

/// For that handler alone.
void noteProcessExit() noexcept;

}  // namespace orbiq
