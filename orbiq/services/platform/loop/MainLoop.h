#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

#include "orbiq/services/platform/base/Export.h"

namespace orbiq {

/// The loop on which the library delivers notifications, timers and network changes.
///
/// Until the host adopts it, it runs on a thread of the library's own, which the first post, timer
/// or watch starts. A host with a main loop of its own calls `adopt()` once on that loop's thread,
/// watches the descriptor for reading and calls `runPending()` whenever it is readable; a host
/// without one may call `adopt()` and `run()`.
///
/// Callbacks run one at a time and under no lock of the library, so they may call any function here
/// and may remove themselves; an exception that one throws is caught and dropped. Where the process
/// has no descriptors left, posts and timers still run, on the library's thread. What cannot be
/// watched for want of descriptors or memory is tried again once a second. If no thread can be
/// started, the next post, timer or watch tries again. In a forked child nothing runs and nothing
/// is kept. When the process exits, the library's thread begins nothing more, and the item in
/// progress has a quarter of a second to end; static objects made before the first use of the loop
/// are destroyed after that.
class ORBIQ_EXPORT MainLoop {
 public:
  /// The process's one loop. Any thread.
  static MainLoop& mainLoop();

  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  /// Hands the loop to the calling thread's own loop, for good. Returns the descriptor to watch
  /// (level-triggered, for reading), or -1 if the loop could not be set up (it may be tried again),
  /// in a forked child, and on the library's own loop thread. Returns when the item in progress on
  /// the library's thread has ended, so no item may wait for the calling thread; order is kept. A
  /// second call returns the same descriptor.
  int adopt();
  /// Runs all that is due, without waiting; what comes up meanwhile waits for the next call. For
  /// the thread that adopted the loop; does nothing before it is adopted.
  void runPending();
  /// Runs the loop on the calling thread, which adopts it, until `stop()`. Returns at once where
  /// `adopt()` would return -1.
  void run();
  /// Ends `run()` after the item in progress; given while nobody runs, it ends the next `run()`
  /// before its first item. Any thread, but no signal handler.
  void stop();

  /// Runs the task on the loop, after everything posted before it. Any thread; returns at once.
  /// False if there is no memory for it, and in a forked child: then it does not run.
  bool post(std::function<void()> task);

  /// Never 0 for a timer that was made.
  using TimerId = std::uint64_t;
  /// Calls `fire` on the loop one interval from now, and then, if `repeats`, at every further
  /// multiple of the interval (missed firings are skipped). Intervals below
  /// 0.1 ms are taken as that, and those beyond thirty years as thirty years. Time does not pass
  /// while the machine sleeps. `timer`, if given, is set before the first firing can begin. Any
  /// thread. 0 if there is no memory for it, and in a forked child.
  TimerId addTimer(std::chrono::nanoseconds interval, bool repeats, std::function<void()> fire,
                   TimerId* timer = nullptr);
  /// Any thread; harmless for a timer that has ended. On the loop itself the timer does not fire
  /// again once this has returned; elsewhere a firing in progress may still end.
  void removeTimer(TimerId timer);

  /// Calls `readable` on the loop whenever the descriptor can be read, or has failed or ended, for
  /// as long as that lasts. A second call for a descriptor replaces the first; one that cannot be
  /// watched (closed, or a regular file) is never called for. Any thread. False if there is no
  /// memory for it, for a negative descriptor and in a forked child.
  bool watch(int descriptor, std::function<void()> readable);
  /// To be called before the descriptor is closed. Any thread; a call in progress may still end.
  void unwatch(int descriptor);

 private:
  struct ORBIQ_HIDDEN State;
  explicit MainLoop(State& state);
  ~MainLoop() = default;

  State& _state;
};

}  // namespace orbiq
