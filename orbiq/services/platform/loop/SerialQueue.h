#pragma once

#include <functional>
#include <memory>
#include <string>

#include "orbiq/services/platform/base/Export.h"
#include "orbiq/services/platform/threads/WorkKind.h"

namespace orbiq {

/// Runs tasks one at a time, in the order in which they were given, on a thread that exists only
/// while there is work: the first task starts it, two idle seconds end it, and where it cannot be
/// started the next task tries again. Tasks given before the queue is destroyed still run (only if
/// no thread can be had even then are they dropped). An exception that a task throws is caught and
/// dropped. Thread-safe. In a forked child nothing runs.
class ORBIQ_EXPORT SerialQueue {
 public:
  /// The label becomes the thread's name, the kind says how it is scheduled. `onIdle` runs like a
  /// task, as the last one before the thread ends for want of others; not any more when the queue
  /// is being destroyed.
  explicit SerialQueue(std::string label, std::function<void()> onIdle = {},
                       WorkKind kind = WorkKind::Prompt);
  /// Returns at once; never waits for tasks, so a task may destroy its own queue.
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  /// Adds a task and returns at once. Any thread. Throws `std::bad_alloc` if there is no memory for
  /// the task, which is not added then. Returns 0, or why there is no thread for the tasks (an
  /// error number).
  int async(std::function<void()> task);
  /// Tries again to start the thread that waiting tasks could not get. For a queue that is given no
  /// further tasks. Returns as `async` does.
  int resume();

 private:
  struct ORBIQ_HIDDEN State;
  /// Shared with the thread, which may outlive the queue.
  std::shared_ptr<State> _state;
};

}  // namespace orbiq
