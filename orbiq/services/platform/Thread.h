#pragma once

#include <functional>
#include <string>

namespace orbiq {

/// Starts a detached thread with the label as its name (cut to what the kernel holds), every signal
/// blocked, a small stack and the policy of work in the background. Returns 0, or the error number
/// of the failed start: nothing of the body has run then, and it is gone. A body that throws ends
/// the process; see `runTask`.
int startThread(const std::string& label, std::function<void()> body);

/// True on a thread that `startThread` made.
bool isLibraryThread() noexcept;

/// Calls the task, if there is one. What it throws ends here: one task must not take the thread, or
/// the tasks behind it, along.
void runTask(const std::function<void()>& task) noexcept;

}  // namespace orbiq
