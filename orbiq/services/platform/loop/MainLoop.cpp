#include "orbiq/services/platform/loop/MainLoop.h"

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <limits>
#include <map>
#include <memory>
#include <new>
#include <utility>

#include "orbiq/services/platform/base/ForkGuard.h"
#include "orbiq/services/platform/base/NeverDestroyed.h"
#include "orbiq/services/platform/base/UntilDone.h"
#include "orbiq/services/platform/log/ForkedAway.h"
#include "orbiq/services/platform/loop/LoopDescriptors.h"
#include "orbiq/services/platform/loop/TimerTable.h"
#include "orbiq/services/platform/threads/Mutex.h"
#include "orbiq/services/platform/threads/ProcessExit.h"
#include "orbiq/services/platform/threads/Thread.h"

namespace orbiq {
namespace {

using Task = std::function<void()>;
/// Shared by the loop's tables and the call in progress, so that a callback may remove itself.
using Callback = TimerTable::Callback;
using std::chrono::nanoseconds;

constexpr nanoseconds kAtOnce{0};
constexpr nanoseconds kShortestInterval = std::chrono::microseconds{100};
/// So far below the clock's range that adding the time since the start of the machine is safe, even
/// where the kernel's seconds have 32 bits.
constexpr nanoseconds kLongestInterval = std::chrono::seconds{1'000'000'000};
constexpr nanoseconds kDescriptorRetry = std::chrono::seconds{1};
/// Added to a watched descriptor's number, so that an event of a closed descriptor is not taken for
/// one of its successor of the same number.
constexpr std::uint64_t kKeyStep = std::uint64_t{1} << 32;

thread_local bool onLoopThread = false;

/// CLOCK_MONOTONIC, the clock of the timer descriptor.
nanoseconds monotonicNow() { return std::chrono::steady_clock::now().time_since_epoch(); }

/// Who asks for work, and so what makes it stop asking.
enum class Runner { library, host, run };

struct Watch {
  std::uint64_t key;
  Callback readable;
};

}  // namespace

struct MainLoop::State {
  Condition condition;

  LoopDescriptors descriptors ORBIQ_GUARDED_BY(condition);
  bool adopted ORBIQ_GUARDED_BY(condition) = false;
  bool threadRuns ORBIQ_GUARDED_BY(condition) = false;
  bool stopRequested ORBIQ_GUARDED_BY(condition) = false;
  bool processExits ORBIQ_GUARDED_BY(condition) = false;
  int runs ORBIQ_GUARDED_BY(condition) = 0;

  /// A posted task is kept as a timer that is due at `kAtOnce`.
  TimerTable timers ORBIQ_GUARDED_BY(condition);

  std::map<int, Watch> watches ORBIQ_GUARDED_BY(condition);
  std::uint64_t lastKey ORBIQ_GUARDED_BY(condition) = 0;
  /// When to try again what could not be watched for want of memory; `kNever` if there is nothing.
  nanoseconds retryAt ORBIQ_GUARDED_BY(condition) = TimerTable::kNever;

  bool openDescriptors() ORBIQ_REQUIRES(condition);
  void update() ORBIQ_REQUIRES(condition);
  TimerId add(nanoseconds now, nanoseconds interval, bool repeats, Task task,
              TimerId* timer = nullptr);
  void addWatch(int descriptor, const Watch& watch) ORBIQ_REQUIRES(condition);
  void addWatches() ORBIQ_REQUIRES(condition);
  /// After a change that the loop's thread must see: tells it, or starts it.
  void wakeOrStart() ORBIQ_REQUIRES(condition);
  /// Ends the library's thread, which must not run callbacks beside static destructors.
  void endWithProcess();

  bool mayRun(Runner runner) const ORBIQ_REQUIRES(condition);
  void leave(Runner runner) ORBIQ_REQUIRES(condition);
  void waitWithoutDescriptors() ORBIQ_REQUIRES(condition);
  /// Waits until something may be due; false if the runner is to leave.
  bool await(Runner runner);
  void runAll(Runner runner) {
    while (await(runner)) runDue(runner);
  }

  void runDue(Runner runner);
  bool fireNext(Runner runner, TimerTable::Place from, TimerTable::Place to);
  void runReadable(Runner runner);
};

bool MainLoop::State::openDescriptors() {
  if (descriptors.areOpen()) return true;
  if (!descriptors.open()) return false;
  addWatches();
  update();
  // The library's thread may be waiting without descriptors.
  condition.broadcast();
  return true;
}

void MainLoop::State::addWatch(int descriptor, const Watch& watch) {
  if (!descriptors.areOpen() || descriptors.add(descriptor, watch.key)) return;
  if (retryAt == TimerTable::kNever) retryAt = monotonicNow() + kDescriptorRetry;
}

/// Adding one that is there already changes nothing.
void MainLoop::State::addWatches() {
  retryAt = TimerTable::kNever;
  for (const auto& [descriptor, watch] : watches) addWatch(descriptor, watch);
}

/// Makes the descriptor readable now if something is to be done, or else when the next timer is
/// due. Without descriptors, wakes who waits.
void MainLoop::State::update() {
  if (!descriptors.areOpen()) return condition.broadcast();
  const nanoseconds due = std::min(timers.earliest(), retryAt);
  const bool isDue = due <= monotonicNow() || ((adopted || processExits) && threadRuns) ||
                     (runs > 0 && stopRequested);
  descriptors.raise(isDue);
  if (!isDue) descriptors.setAlarm(due);
}

void MainLoop::State::wakeOrStart() {
  openDescriptors();
  update();
  if (adopted || threadRuns || processExits) return;
  threadRuns = startThread("orbiqMainLoop", [this] {
                 onLoopThread = true;
                 runAll(Runner::library);
               }) == 0;
}

void MainLoop::State::endWithProcess() {
  if (inForkedChild()) return;
  const nanoseconds deadline = monotonicNow() + kLongestWaitAtExit;
  const Lock lock(condition);
  processExits = true;
  update();
  while (threadRuns && !isLibraryThread()) {
    const nanoseconds left = deadline - monotonicNow();
    if (left.count() <= 0) return;
    condition.waitFor(left);
  }
}

bool MainLoop::State::mayRun(Runner runner) const {
  if (runner == Runner::run) return !stopRequested;
  return runner == Runner::host ? adopted : !adopted && !processExits;
}

void MainLoop::State::leave(Runner runner) {
  if (runner == Runner::library) {
    threadRuns = false;
    condition.broadcast();
  } else {
    --runs;
    stopRequested = false;
  }
  update();
}

void MainLoop::State::waitWithoutDescriptors() {
  const nanoseconds left = std::min(timers.earliest() - monotonicNow(), kDescriptorRetry);
  if (left.count() > 0) condition.waitFor(left);
}

bool MainLoop::State::await(Runner runner) {
  int set = -1;
  {
    const Lock lock(condition);
    if (!mayRun(runner)) {
      leave(runner);
      return false;
    }
    if (!openDescriptors()) {
      waitWithoutDescriptors();
      return true;
    }
    set = descriptors.set();
  }
  epoll_event ignored{};
  epoll_wait(set, &ignored, 1, -1);
  return true;
}

/// Runs what was due at the call; what comes up meanwhile is left, so that it ends.
void MainLoop::State::runDue(Runner runner) {
  constexpr TimerId kLastId = std::numeric_limits<TimerId>::max();
  const nanoseconds now = monotonicNow();
  TimerId newest = 0;
  {
    const Lock lock(condition);
    newest = timers.last();
    if (retryAt <= now) {
      addWatches();
      update();
    }
  }
  while (fireNext(runner, {kAtOnce, 0}, {kAtOnce, newest})) continue;
  while (fireNext(runner, {kAtOnce, kLastId}, {now, kLastId})) continue;
  runReadable(runner);
}

bool MainLoop::State::fireNext(Runner runner, TimerTable::Place from, TimerTable::Place to) {
  // Declared before the lock, so that it ends after it: its destructor may use the loop.
  Callback fire;
  TimerId timer = 0;
  {
    const Lock lock(condition);
    if (mayRun(runner)) timer = timers.beginFiring(from, to, fire);
    if (timer == 0) return false;
    update();
  }
  runTask(*fire);
  const Lock lock(condition);
  timers.endFiring(timer, monotonicNow());
  update();
  return true;
}

void MainLoop::State::runReadable(Runner runner) {
  int set = -1;
  {
    const Lock lock(condition);
    set = descriptors.set();
  }
  std::array<epoll_event, 16> events;
  const int count = epoll_wait(set, events.data(), static_cast<int>(events.size()), 0);
  for (int i = 0; i < count; ++i) {
    const std::uint64_t key = events[static_cast<std::size_t>(i)].data.u64;
    Callback readable;
    {
      const Lock lock(condition);
      if (!mayRun(runner)) return;
      const auto watch = watches.find(static_cast<int>(key % kKeyStep));
      if (watch != watches.end() && watch->second.key == key) readable = watch->second.readable;
    }
    if (readable) runTask(*readable);
  }
}

MainLoop::MainLoop(State& state) : _state(state) { armForkGuard(); }

MainLoop& MainLoop::mainLoop() {
  static NeverDestroyed<State> state;
  static MainLoop loop(*state);
  untilDone([] { return std::atexit([] { loop._state.endWithProcess(); }) == 0; });
  return loop;
}

int MainLoop::adopt() {
  if (onLoopThread || isForkedAway()) return -1;
  const Lock lock(_state.condition);
  if (!_state.openDescriptors()) return -1;
  _state.adopted = true;
  _state.update();
  while (_state.threadRuns) _state.condition.wait();
  return _state.descriptors.set();
}

void MainLoop::runPending() {
  if (!isForkedAway()) _state.runDue(Runner::host);
}

void MainLoop::run() {
  if (adopt() < 0) return;
  {
    const Lock lock(_state.condition);
    ++_state.runs;
    _state.update();
  }
  _state.runAll(Runner::run);
}

void MainLoop::stop() {
  if (isForkedAway()) return;
  const Lock lock(_state.condition);
  _state.stopRequested = true;
  _state.update();
}

MainLoop::TimerId MainLoop::State::add(nanoseconds now, nanoseconds interval, bool repeats,
                                       Task task, TimerId* timer) try {
  if (isForkedAway()) return 0;
  auto callback = std::make_shared<const Task>(std::move(task));
  const Lock lock(condition);
  // A copy: where there is no memory, the task's end comes after the lock, as it may use the loop.
  const TimerId id = timers.add(now, interval, repeats, callback);
  if (timer) *timer = id;
  wakeOrStart();
  return id;
} catch (const std::bad_alloc&) {
  return 0;
}

bool MainLoop::post(std::function<void()> task) {
  return _state.add(kAtOnce, nanoseconds{0}, false, std::move(task)) != 0;
}

MainLoop::TimerId MainLoop::addTimer(nanoseconds interval, bool repeats, std::function<void()> fire,
                                     TimerId* timer) {
  interval = std::clamp(interval, kShortestInterval, kLongestInterval);
  return _state.add(monotonicNow(), interval, repeats, std::move(fire), timer);
}

void MainLoop::removeTimer(TimerId timer) {
  if (isForkedAway()) return;
  // What the callback holds may use the loop in its end, so that comes after the lock.
  Callback removed;
  const Lock lock(_state.condition);
  removed = _state.timers.remove(timer);
  if (removed) _state.update();
}

bool MainLoop::watch(int descriptor, std::function<void()> readable) try {
  if (isForkedAway() || descriptor < 0) return false;
  Callback callback = std::make_shared<const Task>(std::move(readable));
  // Replaced under the lock, gone after it.
  Callback previous;
  const Lock lock(_state.condition);
  Watch& watch = _state.watches[descriptor];
  _state.lastKey += kKeyStep;
  watch.key = _state.lastKey + static_cast<std::uint64_t>(descriptor);
  previous = std::exchange(watch.readable, std::move(callback));
  _state.addWatch(descriptor, watch);
  _state.wakeOrStart();
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

void MainLoop::unwatch(int descriptor) {
  if (isForkedAway()) return;
  Callback removed;
  const Lock lock(_state.condition);
  const auto found = _state.watches.find(descriptor);
  if (found == _state.watches.end()) return;
  removed = std::move(found->second.readable);
  _state.watches.erase(found);
  if (_state.descriptors.areOpen()) _state.descriptors.remove(descriptor);
}

}  // namespace orbiq
