#include "orbiq/services/platform/loop/SerialQueue.h"

#include <cerrno>
#include <chrono>
#include <deque>
#include <new>
#include <utility>

#include "orbiq/services/platform/base/ForkGuard.h"
#include "orbiq/services/platform/log/ForkedAway.h"
#include "orbiq/services/platform/threads/Mutex.h"
#include "orbiq/services/platform/threads/Thread.h"

namespace orbiq {
namespace {

using Task = std::function<void()>;

constexpr std::chrono::seconds kIdleTime{2};

}  // namespace

struct SerialQueue::State {
  State(std::string text, Task idleTask, WorkKind workKind)
      : label(std::move(text)), onIdle(std::move(idleTask)), kind(workKind) {}

  const std::string label;
  const Task onIdle;
  const WorkKind kind;
  Condition condition;
  std::deque<Task> tasks ORBIQ_GUARDED_BY(condition);
  /// The queue's thread runs the tasks until none has come for the idle time.
  bool attended ORBIQ_GUARDED_BY(condition) = false;
  bool closed ORBIQ_GUARDED_BY(condition) = false;
  /// No task has come since `onIdle`.
  bool rested ORBIQ_GUARDED_BY(condition) = false;

  /// Makes sure that there is a thread to run the tasks, if there can be one. 0, or why not.
  static int ensureThread(const std::shared_ptr<State>& state)
      ORBIQ_REQUIRES(state->condition) try {
    if (state->attended || state->tasks.empty()) return 0;
    const auto run = [state] { state->runTasks(); };
    const int error = startThread(state->label, run, state->kind);
    state->attended = error == 0;
    return error;
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }

  void runTasks() {
    for (Task task; take(task); task = nullptr) runTask(task);
  }

  bool take(Task& task) {
    const Lock lock(condition);
    while (tasks.empty()) {
      const bool waits = !closed && !rested;
      const bool isOver = !waits || !condition.waitFor(kIdleTime);
      if (isOver && tasks.empty()) {
        rested = waits && !closed && onIdle;
        attended = rested;
        task = rested ? onIdle : nullptr;
        return rested;
      }
    }
    rested = false;
    task = std::move(tasks.front());
    tasks.pop_front();
    return true;
  }
};

SerialQueue::SerialQueue(std::string label, std::function<void()> onIdle, WorkKind kind)
    : _state(std::make_shared<State>(std::move(label), std::move(onIdle), kind)) {}

SerialQueue::~SerialQueue() {
  if (inForkedChild()) return;
  const Lock lock(_state->condition);
  _state->closed = true;
  State::ensureThread(_state);
  _state->condition.signal();
}

int SerialQueue::async(std::function<void()> task) {
  if (isForkedAway()) return 0;
  const auto state = _state;  // the task may destroy the queue before the signal
  int error = 0;
  {
    const Lock lock(state->condition);
    state->tasks.push_back(std::move(task));
    error = State::ensureThread(state);
  }
  // Outside of the lock, or the thread would wake up only to wait for it.
  state->condition.signal();
  return error;
}

int SerialQueue::resume() {
  if (isForkedAway()) return 0;
  const Lock lock(_state->condition);
  return State::ensureThread(_state);
}

}  // namespace orbiq
