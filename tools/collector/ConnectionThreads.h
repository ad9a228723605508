#pragma once

#include <httplib.h>

#include <cstddef>
#include <deque>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "orbiq/services/platform/threads/Mutex.h"

namespace orbiq::collector {

/// The threads of the server's connections. A connection holds its thread for as long as it is
/// open, idle and stalled ones too, so there is one more whenever none is free: however many
/// clients wait, the next one is heard.
class ConnectionThreads final : public httplib::TaskQueue {
 public:
  /// Some versions of the library want to be told whether the job was taken.
  using Enqueued = decltype(std::declval<httplib::TaskQueue&>().enqueue({}));

  Enqueued enqueue(std::function<void()> job) override;
  void shutdown() override;

 private:
  void startThread() ORBIQ_REQUIRES(_condition);
  void work();

  Condition _condition;
  std::deque<std::function<void()>> _jobs ORBIQ_GUARDED_BY(_condition);
  std::vector<std::thread> _threads ORBIQ_GUARDED_BY(_condition);
  std::size_t _free ORBIQ_GUARDED_BY(_condition) = 0;
  bool _closed ORBIQ_GUARDED_BY(_condition) = false;
};

/// Lets this process have as many connections as the system permits it.
void raiseConnectionLimit();

}  // namespace orbiq::collector
