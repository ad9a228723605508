#pragma once

#include <cxxabi.h>

#include <functional>
#include <string>

#include "orbiq/services/platform/threads/WorkKind.h"

namespace orbiq {

/// Starts a detached thread with the label as its name (cut to what the kernel holds), every signal
/// blocked, a small stack and the policy of its work, whatever that of the caller is. It cannot be
/// cancelled. Returns 0, or the error number of the failed start: nothing of the body has run then,
/// and it is gone. A body that throws ends the process; see `runTask`.
int startThread(const std::string& label, std::function<void()> body,
                WorkKind kind = WorkKind::Prompt);

/// True on a thread that `startThread` made.
bool isLibraryThread() noexcept;

/// Calls a task, or what the host gave. What it throws ends here, and the answer is false: one task
/// must not take the thread, or the tasks behind it, along. Only the end of a thread of the host's,
/// which was cancelled, passes.
template <class Task>
bool runTask(const Task& task) try {
  task();
  return true;
} catch (const abi::__forced_unwind&) {
  throw;
} catch (...) {
  return false;
}

}  // namespace orbiq
