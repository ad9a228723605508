#pragma once

namespace orbiq {

/// How a thread's work is scheduled.
enum class WorkKind {
  /// As that of any thread.
  Prompt,
  /// In the background (SCHED_BATCH): it does not take the place of whoever wakes it.
  Background,
};

}  // namespace orbiq
